// From a trace call to the record in the file: which calls make a record, and what is in it.
#include <gmock/gmock.h>
#include <pthread.h>
#include <sys/time.h>
#include <unistd.h>

#include <climits>
#include <cstdint>
#include <ctime>
#include <stdexcept>

#include "LogTest.h"
#include "Row.h"

namespace {

using testing::ElementsAre;

class LineFormatTest : public LogTest {
protected:
    void RunAndWait(const std::function<void()>& fnBody) {
        InChild([&] {
            fnBody();
            WaitUntilWritten(LogPath());
        });
    }
    std::vector<LogRecord> RecordsAfter(const std::function<void()>& fnBody) {
        RunAndWait(fnBody);
        return RecordsOf(LogPath());
    }
    std::vector<std::string> MessagesAfter(const std::function<void()>& fnBody) {
        RunAndWait(fnBody);
        return MessagesOf(LogPath());
    }
};

// The time of a record as if it were a UTC time.
std::time_t TimeOf(const LogRecord& record) {
    std::tm local{};
    const std::string strTime = record.strDate + " " + record.strTime;
    EXPECT_NE(strptime(strTime.c_str(), "%Y-%m-%d %H:%M:%S", &local), nullptr);
    return timegm(&local);
}

// ---- The message ----

struct Message {
    const wchar_t* pszFormat;
    const char* pszExpected;
};

// All with the arguments L"wide" and 42.
constexpr Message kMessages[] = {
    {L"%s Enter.", "wide Enter."},
    {L"%ls Leave.", "wide Leave."},
    {L"%s %d", "wide 42"},
    {L"%s%%", "wide%"},
    {L"%%s", "%ls"},
    {L"%%%s", "%wide"},
    {L"", ""},
    {L"no placeholder", "no placeholder"},
    {L"\x00e4\x20ac %s", "\xC3\xA4\xE2\x82\xAC wide"},
    {L"\U0001F600", "\xF0\x9F\x98\x80"},
    {L"%.2s|%5d", "w|   42"},  // without "%s": narrow text, which ends after the first byte of 'w'
};

TEST_F(LineFormatTest, EveryPercentSStandsForWideText) {
    const auto messages = MessagesAfter([] {
        for (const Message& message : kMessages) {
            Place()(message.pszFormat, L"wide", 42);
        }
        Place()(L"%s, %ls, %s", L"one", L"two", L"three");
    });
    ASSERT_EQ(messages.size(), std::size(kMessages) + 1);
    EXPECT_EQ(messages.back(), "one, two, three");
    for (size_t i = 0; i < std::size(kMessages); ++i) {
        EXPECT_EQ(messages[i], kMessages[i].pszExpected) << "format " << i;
    }
}

TEST_F(LineFormatTest, AMessageEndsAt8191Characters) {
    constexpr size_t kLengths[] = {254, 255, 256, 257, 8190, 8191, 8192, 8193, 20000};
    const auto messages = MessagesAfter([&] {
        for (const size_t nLength : kLengths) {
            Trace(std::wstring(nLength, L'x'));
        }
        Trace(std::wstring(8192, L'\x00e4'));
    });
    ASSERT_EQ(messages.size(), std::size(kLengths) + 1);
    for (size_t i = 0; i < std::size(kLengths); ++i) {
        EXPECT_EQ(messages[i], std::string(std::min<size_t>(kLengths[i], 8191), 'x')) << kLengths[i];
    }
    EXPECT_EQ(messages.back().size(), 2U * 8191);
}

TEST_F(LineFormatTest, AMessageEndsBeforeTextThatCannotBeConverted) {
    const auto messages = MessagesAfter([] { Place()(L"%s%hs%s", L"begin", "\xFF", L"end"); });
    EXPECT_THAT(messages, ElementsAre("begin"));
}

TEST_F(LineFormatTest, ANullFormatIsALogicError) {
    InChild([] { EXPECT_THROW(Place()(nullptr), std::logic_error); });
    EXPECT_EQ(ReadWholeFile(LogPath()), "");
}

TEST_F(LineFormatTest, AHelperServesAnyNumberOfCalls) {
    const auto messages = MessagesAfter([] {
        CDebugLogMgr::MacroHelper helper = Place();
        for (int i = 0; i < 3; ++i) {
            helper(L"call %d", i);
        }
    });
    EXPECT_THAT(messages, ElementsAre("call 0", "call 1", "call 2"));
}

// ---- The header ----

TEST_F(LineFormatTest, TheHeaderShowsProcessThreadTimeAndPlace) {
    struct Seen {
        pid_t nProcess;
        int nThread;
    } seen{};
    const std::string strSeen = m_directory.Path("seen");
    const std::time_t before = std::time(nullptr);
    setenv("TZ", "XYZ-5:30", 1);
    const auto records = RecordsAfter([&] {
        seen = {getpid(), static_cast<int>(static_cast<std::uint32_t>(pthread_self()))};
        std::ofstream(strSeen) << seen.nProcess << ' ' << seen.nThread;
        Trace(L"text");
    });
    const std::time_t after = std::time(nullptr);
    unsetenv("TZ");
    std::ifstream(strSeen) >> seen.nProcess >> seen.nThread;

    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].strType, "[INFO] ");
    EXPECT_EQ(records[0].nProcess, seen.nProcess);
    EXPECT_EQ(records[0].nThread, seen.nThread);
    EXPECT_EQ(records[0].strFile, "test.cpp");
    EXPECT_EQ(records[0].strFunction, "Function");
    EXPECT_EQ(records[0].nLine, 7);

    // Local time, here five and a half hours ahead.
    const std::time_t written = TimeOf(records[0]) - (5 * 60 + 30) * 60;
    EXPECT_GE(written, before);
    EXPECT_LE(written, after);
}

TEST_F(LineFormatTest, TheTimeZoneMayChangeWhileTheProcessRuns) {
    struct Zone {
        const char* pszTZ;
        std::time_t nSecondsEast;
    };
    constexpr Zone kZones[] = {{"UTC0", 0}, {"AAA-5:30", 19'800}, {"BBB+8", -28'800}, {"AAA-5:30", 19'800}};
    const std::time_t before = std::time(nullptr);
    const auto records = RecordsAfter([&] {
        for (const Zone& zone : kZones) {
            setenv("TZ", zone.pszTZ, 1);
            Trace(L"text");
            WaitUntilWritten(LogPath());  // so that no thread reads the environment while it changes
        }
    });
    const std::time_t after = std::time(nullptr);
    ASSERT_EQ(records.size(), std::size(kZones));
    for (std::size_t i = 0; i < records.size(); ++i) {
        const std::time_t written = TimeOf(records[i]) - kZones[i].nSecondsEast;
        EXPECT_GE(written, before) << kZones[i].pszTZ;
        EXPECT_LE(written, after) << kZones[i].pszTZ;
    }
}

TEST_F(LineFormatTest, AMissingFunctionNameConcernsItsOwnRecordOnly) {
    const auto records = RecordsAfter([] {
        for (const wchar_t* pszFunction : {L"Function", L"", static_cast<const wchar_t*>(nullptr), L"Other"}) {
            CDebugLogMgr::MacroHelper(L"[INFO] ", 1, L"test.cpp", pszFunction, 7)(L"text");
        }
        TraceArguments(L"[INFO] ", 1, L"test.cpp", nullptr, 7, L"text");
    });
    ASSERT_EQ(records.size(), 5U);
    EXPECT_EQ(records[0].strFunction, "Function");
    EXPECT_EQ(records[1].strFunction, std::nullopt);
    EXPECT_EQ(records[2].strFunction, std::nullopt);
    EXPECT_EQ(records[3].strFunction, "Other");
    EXPECT_EQ(records[4].strFunction, std::nullopt);
    EXPECT_EQ(records[1].strFile, "test.cpp");
}

// The message is "!", so that everything before it is the header, cut or not.
TEST_F(LineFormatTest, AHeaderEndsAt259Characters) {
    const auto header = [](size_t nPath) {
        CDebugLogMgr::MacroHelper(L"", 1, std::wstring(nPath, L'p').c_str(), L"F", 7)(L"!");
    };
    // Process, thread and microseconds vary in length. Many path lengths make sure that the limit is met.
    RunAndWait([&] {
        for (size_t nPath = 150; nPath < 300; ++nPath) {
            header(nPath);
        }
    });
    size_t nWhole = 0;
    size_t nCut = 0;
    size_t nPath = 150;
    for (const std::string& strEntry : ReadLogFile(LogPath()).entries) {
        if (strEntry.starts_with("[MARK]")) {
            continue;
        }
        ASSERT_TRUE(strEntry.ends_with('!'));
        const size_t nHeader = strEntry.size() - 1;
        if (const auto record = ParseLogRecord(strEntry); record && record->strFile.size() == nPath) {
            ++nWhole;
            EXPECT_EQ(nCut, 0U) << "a longer header was whole after a shorter one was cut";
            EXPECT_LE(nHeader, 259U);
        } else {
            ++nCut;
            EXPECT_EQ(nHeader, 259U) << strEntry;
        }
        ++nPath;
    }
    EXPECT_GT(nWhole, 10U);
    EXPECT_GT(nCut, 10U);
}

// The reader of the tests takes a record with a cut header for the rest of a cut file.
TEST_F(LineFormatTest, AVeryLongSourcePathLeavesTheMessage) {
    RunAndWait([] {
        CDebugLogMgr::MacroHelper(L"[INFO] ", 1, std::wstring(100'000, L'p').c_str(), L"Function", 7)(L"message");
    });
    const std::string strEntry = ReadLogFile(LogPath()).strCut;
    EXPECT_EQ(strEntry.size(), 7 + 259 + 7U);
    EXPECT_TRUE(strEntry.ends_with("ppmessage"));
}

TEST_F(LineFormatTest, ALineNumberIsAnInt) {
    constexpr int kLines[] = {0, 9, 10, -1, -10, INT_MAX, INT_MIN};
    const auto records = RecordsAfter([&] {
        for (const int nLine : kLines) {
            CDebugLogMgr::MacroHelper(L"[INFO] ", 1, L"test.cpp", L"Function", static_cast<DWORD>(nLine))(L"text");
        }
    });
    ASSERT_EQ(records.size(), std::size(kLines));
    for (size_t i = 0; i < std::size(kLines); ++i) {
        EXPECT_EQ(records[i].nLine, kLines[i]);
    }
}

// They are padded to three digits and never cut to milliseconds.
TEST_F(LineFormatTest, MicrosecondsAreWrittenAsTheyAre) {
    constexpr int kRecords = 2000;
    const auto records = RecordsAfter([] {
        // Spreads the records over a second.
        for (int i = 0; i < kRecords; ++i) {
            Trace(L"text");
            usleep(700);
        }
    });
    ASSERT_EQ(records.size(), static_cast<size_t>(kRecords));
    int nSixDigits = 0;
    for (const LogRecord& record : records) {
        const int nMicros = std::stoi(record.strMicros);
        EXPECT_LT(nMicros, 1'000'000);
        EXPECT_TRUE(record.strMicros.size() == 3 || record.strMicros.front() != '0') << record.strMicros;
        nSixDigits += record.strMicros.size() == 6 ? 1 : 0;
    }
    EXPECT_GT(nSixDigits, kRecords / 3);
}

// ---- Records that are dropped ----

TEST_F(LineFormatTest, ARecordWithoutFileOrFormatIsDropped) {
    const auto records = RecordsAfter([] {
        TraceArguments(L"[INFO] ", 1, nullptr, L"Function", 7, L"no file");
        TraceArguments(L"[INFO] ", 1, L"test.cpp", L"Function", 7, nullptr);
        TraceArguments(nullptr, 1, L"test.cpp", L"Function", 7, L"no type");
        TraceArguments(L"[INFO] ", 1, L"", L"Function", 7, L"empty file");
        CDebugLogMgr::MacroHelper(nullptr, 1, nullptr, nullptr, 7)(L"nothing but a message");
    });
    ASSERT_EQ(records.size(), 3U);
    EXPECT_EQ(records[0].strType, "");
    EXPECT_EQ(records[0].strMessage, "no type");
    EXPECT_EQ(records[1].strFile, "");
    EXPECT_EQ(records[1].strMessage, "empty file");
    EXPECT_EQ(records[2].strType, "");
    EXPECT_EQ(records[2].strFile, "");
    EXPECT_EQ(records[2].strFunction, std::nullopt);
    EXPECT_EQ(records[2].strMessage, "nothing but a message");
}

TEST_F(LineFormatTest, OutputArgsDoesNotRewriteItsFormat) {
    const auto messages = MessagesAfter(
        [] { TraceArguments(L"[INFO] ", 1, L"test.cpp", L"Function", 7, L"%s|%ls|%%s", "narrow", L"wide"); });
    EXPECT_THAT(messages, ElementsAre("narrow|wide|%s"));
}

struct Level : Row {
    const char* pszIni;  // null: no file
    int nLevel;          // that it sets
};

class LevelTest : public LineFormatTest, public testing::WithParamInterface<Level> {};

TEST_P(LevelTest, RecordsOfAtLeastTheConfiguredLevelAreWritten) {
    const Level& level = GetParam();
    if (level.pszIni != nullptr) {
        m_directory.Write("log.ini", level.pszIni);
    }
    constexpr int kLevels[] = {-1, 0, 1, 2, 3, 100};
    const auto found = MessagesAfter([&] {
        EXPECT_EQ(CDebugLogMgr::GetInstance()->GetLogLevel(), level.nLevel);
        for (const int nLevel : kLevels) {
            Place(nLevel)(L"level %d", nLevel);
        }
    });
    std::vector<std::string> expected;
    for (const int nLevel : kLevels) {
        if (nLevel >= level.nLevel) {
            expected.push_back("level " + std::to_string(nLevel));
        }
    }
    EXPECT_EQ(found, expected);
}

INSTANTIATE_TEST_SUITE_P(, LevelTest,
                         testing::Values(Level{"NoFile", nullptr, 1}, Level{"EmptyFile", "", 1},
                                         Level{"OtherSection", "[other]\nlogLevel=3\n", 1},
                                         Level{"OtherKey", "[loginfo]\nlevel=3\n", 1},
                                         Level{"Zero", "[loginfo]\nlogLevel=0\n", 0},
                                         Level{"One", "[loginfo]\nlogLevel=1\n", 1},
                                         Level{"Two", "[loginfo]\r\nlogLevel = 2\r\n", 2},
                                         Level{"AnyCase", "; comment\n[LogInfo]\nLOGLEVEL=3\n", 3}),
                         RowName);

}  // namespace
