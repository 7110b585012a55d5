// How the writer writes records: the file's layout, the calls for one record, fallback names, cuts.
#include <gmock/gmock.h>

#include <filesystem>
#include <regex>
#include <thread>

#include "FileCalls.h"
#include "HeldUpCall.h"
#include "LogTest.h"
#include "Row.h"

namespace {

using testing::Each;
using testing::ElementsAre;
using testing::SizeIs;

// A record that no locale can encode.
void TraceUnconvertible() {
    Trace(std::wstring(1, static_cast<wchar_t>(0xD800)));
}

class WriterTest : public LogTest {
protected:
    // Traces each text and waits until the file is closed after the last.
    void Write(const std::vector<std::wstring>& texts) {
        InChild([&] {
            for (const std::wstring& strText : texts) {
                Trace(strText);
            }
            file_calls::WaitFor("CloseHandle", static_cast<int>(texts.size()));
        });
    }
};

// ---- Layout ----

TEST_F(WriterTest, AFreshFileStartsWithTwoBytesAndEachEntryEndsWithABlankLine) {
    Write({L"one", L"two"});
    const std::string bytes = ReadWholeFile(LogPath());
    EXPECT_TRUE(std::regex_match(bytes, std::regex("\xFF\xFE\\[INFO\\] [^\r\n]*: one\r\n\r\n"
                                                   "\\[INFO\\] [^\r\n]*: two\r\n\r\n")))
        << bytes;
}

TEST_F(WriterTest, AnExistingFileGetsNoSecondHeader) {
    Write({L"one"});
    Write({L"two"});
    const std::string bytes = ReadWholeFile(LogPath());
    EXPECT_EQ(bytes.rfind("\xFF\xFE"), 0U);
    EXPECT_THAT(MessagesOf(LogPath()), ElementsAre("one", "two"));
}

TEST_F(WriterTest, AnExistingFileWithoutHeaderStaysWithoutOne) {
    for (const char* pszBytes : {"", "text"}) {
        m_directory.Write("PILog.txt", pszBytes);
        Write({L"one"});
        EXPECT_TRUE(ReadWholeFile(LogPath()).starts_with(std::string(pszBytes) + "[INFO] "));
    }
}

TEST_F(WriterTest, OnlyItsOwnerReadsTheFile) {
    Write({L"one"});
    EXPECT_EQ(std::filesystem::status(LogPath()).permissions(),
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
}

TEST_F(WriterTest, AMessageMayHoldLineEnds) {
    Write({L"first\nsecond\r\nthird"});
    EXPECT_THAT(MessagesOf(LogPath()), ElementsAre("first\nsecond\r\nthird"));
}

struct Locale {
    const char* pszName;
    const char* pszExpected;  // null: the entry is empty
};

TEST_F(WriterTest, ARecordThatTheLocaleCannotEncodeIsAnEmptyEntry) {
    for (const Locale& locale : {Locale{"C.UTF-8", "\xC3\xA4"}, Locale{"C", nullptr}}) {
        std::filesystem::remove(LogPath());
        setenv("LC_ALL", locale.pszName, 1);
        Write({L"before", L"\x00e4", L"after"});
        const LogFile file = ReadLogFile(LogPath());
        ASSERT_THAT(file.entries, SizeIs(3)) << locale.pszName;
        if (locale.pszExpected == nullptr) {
            EXPECT_EQ(file.entries[1], "");
        } else {
            EXPECT_TRUE(file.entries[1].ends_with(std::string(": ") + locale.pszExpected));
        }
        EXPECT_TRUE(file.entries[2].ends_with(": after"));
    }
}

// ---- Calls ----

// The writer's calls for one record, in their order, when the file exists.
TEST_F(WriterTest, ARecordCostsTheWriterTheseCalls) {
    InChild([] {
        std::vector<std::string> calls;
        const std::thread::id tracer = std::this_thread::get_id();
        Trace(L"first");
        file_calls::WaitFor("CloseHandle", 1);
        file_calls::Watch([&](const file_calls::Call& call) {
            if (std::this_thread::get_id() != tracer) {
                calls.push_back(std::string(call.function) + (call.data == "\r\n\r\n" ? " end" : ""));
            }
        });
        Trace(L"second");
        file_calls::WaitFor("CloseHandle", 2);
        EXPECT_THAT(calls,
                    ElementsAre("PathIsDirectoryW", "VexCreateFile", "GetFileSizeEx", "SetFilePointerEx", "WriteFile",
                                "FlushFileBuffers", "WriteFile end", "GetFileSizeEx", "CloseHandle"));
    });
}

// ---- Fallback names ----

class FallbackTest : public WriterTest {
protected:
    // Matches a blank, the name, the time.
    static testing::Matcher<std::string> FallbackOf(const std::string& strName) {
        std::string strPattern = " ";
        for (const char ch : strName) {
            strPattern += std::string_view(".^$|()[]{}*+?\\").find(ch) != std::string_view::npos ? "\\" : "";
            strPattern += ch;
        }
        const std::regex pattern(strPattern + "\\.\\d{4}\\.\\d\\d\\.\\d\\d\\.\\d\\d\\.\\d\\d\\.\\d\\d\\.\\d{3,6}");
        return testing::ResultOf(
            "looks like a fallback name", [pattern](const std::string& str) { return std::regex_match(str, pattern); },
            testing::IsTrue());
    }
};

TEST_F(FallbackTest, ARelativeDirectoryLeadsToAFileBesideIt) {
    std::filesystem::create_directory(WorkingDirectory() + "/logs");
    InChild([&] {
        SetLogFileName("logs");
        // This record is lost, but its file is created with the header.
        Trace(L"one");
        file_calls::WaitFor("CloseHandle", 1);
        Trace(L"two");
        Trace(L"three");
        file_calls::WaitFor("CloseHandle", 3);
    });
    EXPECT_THAT(FilesInWorkingDirectory(), ElementsAre(FallbackOf("logs")));
    const std::string strFile = WorkingDirectory() + "/" + FilesInWorkingDirectory().at(0);
    EXPECT_TRUE(ReadLogFile(strFile).bHeader);
    EXPECT_THAT(MessagesOf(strFile), ElementsAre("two", "three"));
}

TEST_F(FallbackTest, AnAbsoluteDirectoryLeadsBelowADirectoryWithABlankName) {
    const std::string strLogs = m_directory.Path("logs");
    std::filesystem::create_directory(strLogs);
    InChild([&] {
        SetLogFileName(strLogs);
        // The directory does not exist yet; the next record makes it.
        Trace(L"one");
        file_calls::WaitFor("VexCreateFile", 1);
        Trace(L"two");
        file_calls::WaitFor("CloseHandle", 1);
    });
    EXPECT_THAT(FilesInWorkingDirectory(), ElementsAre(FallbackOf(strLogs)));
    EXPECT_THAT(MessagesOf(WorkingDirectory() + "/" + FilesInWorkingDirectory().at(0)), ElementsAre("two"));
    EXPECT_TRUE(std::filesystem::is_empty(strLogs));
}

// Records that are queued before the fallback's directory exists are lost, but none of the later ones, and the name
// stays.
TEST_F(FallbackTest, RecordsInABurstDoNotChangeTheNameAgain) {
    const std::string strLogs = m_directory.Path("logs");
    std::filesystem::create_directory(strLogs);
    for (const int nBurst : {2, 20, 100}) {
        SCOPED_TRACE(nBurst);
        std::filesystem::remove_all(WorkingDirectory());
        std::filesystem::create_directory(WorkingDirectory());
        InChild([&] {
            HeldUpCall first("PathIsDirectoryW");
            SetLogFileName(strLogs);
            for (int i = 0; i < nBurst; ++i) {
                Trace(L"lost");
            }
            first.GoOn();
            file_calls::WaitFor("VexCreateFile", nBurst);
            for (const wchar_t* pszText : {L"one", L"two"}) {
                Trace(pszText);
            }
            file_calls::WaitFor("CloseHandle", 2);
        });
        ASSERT_THAT(FilesInWorkingDirectory(), ElementsAre(FallbackOf(strLogs)));
        EXPECT_THAT(MessagesOf(WorkingDirectory() + "/" + FilesInWorkingDirectory().at(0)), ElementsAre("one", "two"));
    }
}

TEST_F(FallbackTest, ANameThatIsSetLaterHasItsOwnFallback) {
    for (const char* pszDirectory : {"first", "second"}) {
        std::filesystem::create_directory(WorkingDirectory() + "/" + pszDirectory);
    }
    InChild([&] {
        int nFiles = 0;
        for (const char* pszDirectory : {"first", "second"}) {
            SetLogFileName(pszDirectory);
            Trace(L"lost");
            file_calls::WaitFor("CloseHandle", ++nFiles);
        }
    });
    EXPECT_THAT(FilesInWorkingDirectory(), ElementsAre(FallbackOf("first"), FallbackOf("second")));
}

TEST_F(FallbackTest, AFallbackThatFailsLosesRecordsAndNothingElse) {
    InChild([&] {
        SetLogFileName("/proc/nothing/here/log.txt");
        for (int i = 0; i < 3; ++i) {
            Trace(L"lost");
        }
        SetLogFileName("/tmp/PILog.txt");
        WaitUntilWritten(LogPath());
    });
}

// ---- Cutting ----

struct Cut : Row {
    size_t cbFile;  // with the record that makes it that long
    DWORD dwLimit;
    DWORD dwPercent;
    bool bCut;
    size_t nFrom;  // what is kept of the old file
    size_t nKept;
};

// Bytes whose values show their positions.
std::string NumberedBytes(size_t cb) {
    std::string bytes(cb, '\0');
    for (size_t i = 0; i < cb; ++i) {
        bytes[i] = static_cast<char>((i * 7 + i / 251) & 0xff);
    }
    return bytes;
}

// Adds four bytes to the file, those of a record that cannot be encoded, and lets the log cut it.
void AppendAndCut(DWORD dwLimit, DWORD dwPercent) {
    CDebugLogMgr::GetInstance()->SetTruncate(dwLimit, dwPercent);
    TraceUnconvertible();
    file_calls::WaitFor("CloseHandle", 1);
}

class CutTest : public LogTest, public testing::WithParamInterface<Cut> {};

TEST_P(CutTest, KeepsTheseBytes) {
    const Cut& cut = GetParam();
    const std::string strBefore = NumberedBytes(cut.cbFile - 4);
    m_directory.Write("PILog.txt", strBefore);
    InChild([&] { AppendAndCut(cut.dwLimit, cut.dwPercent); });
    const std::string strAppended = strBefore + "\r\n\r\n";
    const std::string strExpected = cut.bCut ? "\xFF\xFE" + strAppended.substr(cut.nFrom, cut.nKept) : strAppended;
    const std::string strAfter = ReadWholeFile(LogPath());
    EXPECT_EQ(strAfter.size(), strExpected.size());
    EXPECT_TRUE(strAfter == strExpected);
}

INSTANTIATE_TEST_SUITE_P(
    , CutTest,
    testing::Values(Cut{"AFifthOf150", 150, 100, 20, true, 28, 120}, Cut{"AFifthOf151", 151, 100, 20, true, 29, 120},
                    Cut{"OneBelowTheLimit", 99, 100, 20, false, 0, 0}, Cut{"AtTheLimit", 100, 100, 20, false, 0, 0},
                    Cut{"OneAboveTheLimit", 101, 100, 20, true, 19, 80}, Cut{"Half", 150, 100, 50, true, 74, 74},
                    Cut{"AThird", 150, 100, 33, true, 48, 100}, Cut{"NextToNothing", 150, 100, 1, true, 0, 148},
                    Cut{"All", 150, 100, 100, true, 148, 0}, Cut{"Never", 150, 100, 0, false, 0, 0},
                    Cut{"LimitZero", 150, 0, 20, true, 28, 120},
                    Cut{"Large", 20'000'003, 2'000'000, 20, true, 3'999'999, 16'000'002}),
    RowName);

// Percentages above 100 and files of a few bytes.
TEST_F(LogTest, OddCutsKeepAPartOfTheFileOrNothing) {
    struct Odd {
        size_t cbFile;
        DWORD dwPercent;
    };
    for (const Odd& odd : {Odd{4, 20}, Odd{5, 20}, Odd{6, 20}, Odd{7, 20}, Odd{7, 1}, Odd{8, 20}, Odd{9, 10},
                           Odd{150, 101}, Odd{150, 200}, Odd{151, 1'000'000}, Odd{150, ~DWORD{0}}}) {
        const std::string strBefore = NumberedBytes(odd.cbFile - 4);
        m_directory.Write("PILog.txt", strBefore);
        InChild([&] { AppendAndCut(1, odd.dwPercent); });
        std::string strAfter = ReadWholeFile(LogPath());
        EXPECT_LE(strAfter.size(), odd.cbFile + 2) << odd.cbFile << ", " << odd.dwPercent;
        if (strAfter.starts_with("\xFF\xFE")) {
            strAfter.erase(0, 2);
        }
        EXPECT_NE((strBefore + "\r\n\r\n").find(strAfter), std::string::npos) << odd.cbFile << ", " << odd.dwPercent;
    }
}

// ---- Large files ----

struct LargeFile : Row {
    std::uintmax_t cbFile;  // with the record
    DWORD dwLimit;
    unsigned nMode;
    bool bCut;
};

class LargeFileTest : public LogTest, public testing::WithParamInterface<LargeFile> {};

// Other users who may write to a file can make it larger than this process's memory.
TEST_P(LargeFileTest, IsReadForACutOnlyIfItIsSafe) {
    const LargeFile& row = GetParam();
    m_directory.Write("PILog.txt", "\xFF\xFE");
    std::filesystem::resize_file(LogPath(), row.cbFile - 4);
    std::filesystem::permissions(LogPath(), std::filesystem::perms(row.nMode));
    InChild([&] {
        AppendAndCut(row.dwLimit, 99);
        EXPECT_EQ(file_calls::Count("ReadFile"), row.bCut ? 1 : 0);
    });
    EXPECT_EQ(std::filesystem::file_size(LogPath()) < row.cbFile, row.bCut);
}

constexpr std::uintmax_t kMebibyte = 0x100000;

INSTANTIATE_TEST_SUITE_P(
    , LargeFileTest,
    testing::Values(LargeFile{{"SharedAndAtTheBound"}, 64 * kMebibyte, 2 * kMebibyte, 0666, true},
                    LargeFile{{"SharedAndAboveTheBound"}, 64 * kMebibyte + 1, 2 * kMebibyte, 0666, false},
                    LargeFile{{"OfTheGroup"}, 64 * kMebibyte + 1, 2 * kMebibyte, 0620, false},
                    LargeFile{{"SharedAndAtFourTimesTheLimit"}, 80 * kMebibyte, 20 * kMebibyte, 0666, true},
                    LargeFile{{"SharedAndAboveFourTimesTheLimit"}, 80 * kMebibyte + 1, 20 * kMebibyte, 0666, false},
                    LargeFile{{"OfItsOwnerAlone"}, 64 * kMebibyte + 1, 2 * kMebibyte, 0644, true}),
    RowName);

TEST_F(WriterTest, WithoutAPercentageTheFileGrows) {
    constexpr int kRecords = 100;
    InChild([&] {
        CDebugLogMgr::GetInstance()->SetTruncate(100, 0);
        for (int i = 0; i < kRecords; ++i) {
            Trace(L"text");
        }
        file_calls::WaitFor("CloseHandle", kRecords);
        EXPECT_EQ(file_calls::Count("SetEndOfFile"), 0);
    });
    EXPECT_THAT(MessagesOf(LogPath()), SizeIs(kRecords));
}

TEST_F(WriterTest, AReadThatFailsLeavesTheFileAsItIs) {
    InChild([&] {
        CDebugLogMgr::GetInstance()->SetTruncate(1000, 20);
        // Shortens the file before the cut reads it.
        file_calls::Watch([&](const file_calls::Call& call) {
            if (call.function == "ReadFile") {
                std::filesystem::resize_file(LogPath(), 500);
            }
        });
        Trace(std::wstring(2000, L'x'));
        file_calls::WaitFor("CloseHandle", 1);
        EXPECT_EQ(file_calls::Count("ReadFile"), 1);
        EXPECT_EQ(file_calls::Count("SetEndOfFile"), 0);
    });
    EXPECT_EQ(ReadWholeFile(LogPath()).size(), 500U);
}

// ---- Kills ----

TEST_F(WriterTest, AProcessKilledInACutLeavesAUsableFile) {
    constexpr int kRecords = 20;
    const auto traceWithCuts = [&] {
        CDebugLogMgr::GetInstance()->SetTruncate(1000, 20);
        for (int i = 0; i < kRecords; ++i) {
            Trace(L"message " + std::to_wstring(i));
        }
        file_calls::WaitFor("CloseHandle", kRecords);
    };
    // Kills before each call of a cut, which begins with the first ReadFile, to the end of that record.
    int nPoints = 0;
    for (bool bKilled = true; bKilled; ++nPoints) {
        std::filesystem::remove(LogPath());
        const ChildEnd end = RunLogChild(
            [&] {
                int nCallsOfCut = 0;
                file_calls::Watch([&, nPoint = nPoints](const file_calls::Call& call) {
                    if (call.function == "SHCreateDirectoryExW") {
                        return;  // the tracing thread's; all others are the writer's
                    }
                    if (nCallsOfCut > 0 || call.function == "ReadFile") {
                        if (nCallsOfCut++ == nPoint && nPoint < 20) {
                            raise(SIGKILL);
                        }
                    }
                });
                traceWithCuts();
            },
            Exit::kAtOnce);
        bKilled = end.nSignal == SIGKILL;
        EXPECT_TRUE(bKilled || end.Passed());

        InChild(traceWithCuts);
        const LogFile file = ReadLogFile(LogPath());
        EXPECT_LE(ReadWholeFile(LogPath()).size(), 1000U) << "killed before call " << nPoints;
        EXPECT_TRUE(file.bHeader);
        ASSERT_GE(file.entries.size(), 5U);
        for (size_t i = 0; i < 5; ++i) {
            const auto record = ParseLogRecord(file.entries[file.entries.size() - 1 - i]);
            ASSERT_TRUE(record) << "killed before call " << nPoints;
            EXPECT_EQ(record->strMessage, "message " + std::to_string(kRecords - 1 - static_cast<int>(i)));
        }
    }
    EXPECT_GT(nPoints, 6);
}

}  // namespace
