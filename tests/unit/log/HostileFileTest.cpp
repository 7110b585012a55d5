// Log files that the log cannot use or does not expect. The program goes on, other files stay as they are, and the log
// writes its records elsewhere if it can.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>

#include "FileCalls.h"
#include "LogTest.h"
#include "OwnMounts.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr uid_t kSomebodyElse = 65534;

class HostileFileTest : public LogTest {
protected:
    HostileFileTest() {
        // Each test makes PILog.txt, the file of the default name, what it needs. Children may run as another user and
        // write their fallback files here.
        std::filesystem::permissions(m_directory.Path(), std::filesystem::perms(0777));
        std::filesystem::permissions(WorkingDirectory(), std::filesystem::perms(0777));
    }

    // The first record is lost, and the log switches to a fallback name. The other records are in that file.
    // nOpens: how often the log tries to open a file for the first record.
    void ExpectLinesInFallback(
        int nOpens, const std::function<void()>& fnPrepare = [] {}) {
        InChild([&] {
            fnPrepare();
            Trace(L"line 0");
            file_calls::WaitFor("VexCreateFile", nOpens);
            for (int i = 1; i < 4; ++i) {
                Trace(L"line " + std::to_wstring(i));
            }
            file_calls::WaitFor("CloseHandle", 3);
        });
        const std::vector<std::string> files = FilesInWorkingDirectory();
        ASSERT_THAT(files, SizeIs(1));
        EXPECT_TRUE(files[0].starts_with(" /tmp/PILog.txt.")) << files[0];
        EXPECT_THAT(MessagesOf(WorkingDirectory() + "/" + files[0]), ElementsAre("line 1", "line 2", "line 3"));
    }

    const std::string m_strTarget = m_directory.Write("target", "another's text");
};

TEST_F(HostileFileTest, ADirectory) {
    std::filesystem::create_directory(LogPath());
    ExpectLinesInFallback(1);
    EXPECT_TRUE(std::filesystem::is_empty(LogPath()));
}

TEST_F(HostileFileTest, APipe) {
    ASSERT_EQ(mkfifo(LogPath().c_str(), 0666), 0);
    ExpectLinesInFallback(2);
    EXPECT_TRUE(std::filesystem::is_fifo(LogPath()));
}

TEST_F(HostileFileTest, ALinkToAnotherFile) {
    std::filesystem::create_symlink(m_strTarget, LogPath());
    ExpectLinesInFallback(2);
    EXPECT_EQ(ReadWholeFile(m_strTarget), "another's text");
}

TEST_F(HostileFileTest, ALinkToNothing) {
    std::filesystem::create_symlink(m_directory.Path("nothing"), LogPath());
    ExpectLinesInFallback(2);
    EXPECT_FALSE(std::filesystem::exists(m_directory.Path("nothing")));
}

TEST_F(HostileFileTest, AHardLinkToAnotherFile) {
    std::filesystem::create_hard_link(m_strTarget, LogPath());
    ExpectLinesInFallback(2);
    EXPECT_EQ(ReadWholeFile(m_strTarget), "another's text");
}

TEST_F(HostileFileTest, ALinkToALink) {
    std::filesystem::create_symlink(m_strTarget, m_directory.Path("link"));
    std::filesystem::create_symlink(m_directory.Path("link"), LogPath());
    ExpectLinesInFallback(2);
    EXPECT_EQ(ReadWholeFile(m_strTarget), "another's text");
}

void BecomeSomebodyElse() {
    ASSERT_EQ(setgid(kSomebodyElse), 0);
    ASSERT_EQ(setuid(kSomebodyElse), 0);
}

#define SKIP_UNLESS_ROOT()                                                       \
    if (geteuid() != 0) {                                                        \
        GTEST_SKIP() << "skipped: only root can run a process as somebody else"; \
    }

TEST_F(HostileFileTest, SomebodyElsesFile) {
    SKIP_UNLESS_ROOT()
    m_directory.Write("PILog.txt", "private");
    std::filesystem::permissions(LogPath(), std::filesystem::perms(0600));
    ExpectLinesInFallback(2, BecomeSomebodyElse);
    EXPECT_EQ(ReadWholeFile(LogPath()), "private");
}

TEST_F(HostileFileTest, SomebodyElsesFileThatAllMayWrite) {
    SKIP_UNLESS_ROOT()
    constexpr uid_t kOwner = 65533;
    m_directory.Write("PILog.txt", "theirs");
    std::filesystem::permissions(LogPath(), std::filesystem::perms(0666));
    ASSERT_EQ(chown(LogPath().c_str(), kOwner, static_cast<gid_t>(-1)), 0);
    ExpectLinesInFallback(2, BecomeSomebodyElse);
    EXPECT_EQ(ReadWholeFile(LogPath()), "theirs");
}

TEST_F(HostileFileTest, RootDoesNotUseSomebodyElsesFileEither) {
    SKIP_UNLESS_ROOT()
    m_directory.Write("PILog.txt", "theirs");
    ASSERT_EQ(chown(LogPath().c_str(), kSomebodyElse, static_cast<gid_t>(-1)), 0);
    ExpectLinesInFallback(2);
    EXPECT_EQ(ReadWholeFile(LogPath()), "theirs");
}

// Each wait takes up to two seconds; the bound on the time leaves no room for a wait per record.
TEST_F(HostileFileTest, WaitsOnceForALockThatIsNotReleased) {
    m_directory.Write("PILog.txt", "\xFF\xFE");
    const int nFile = open(LogPath().c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(flock(nFile, LOCK_EX), 0);
    constexpr int kLines = 100;
    InChild([&] {
        const auto start = std::chrono::steady_clock::now();
        for (int i = 0; i < kLines; ++i) {
            Trace(L"line");
        }
        WaitUntilWritten(LogPath());
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(kLines));
    });
    close(nFile);
    EXPECT_THAT(RecordsOf(LogPath()), SizeIs(kLines));
}

TEST_F(HostileFileTest, UsesRootsFileThatAllMayWrite) {
    SKIP_UNLESS_ROOT()
    m_directory.Write("PILog.txt", "");
    std::filesystem::permissions(LogPath(), std::filesystem::perms(0666));
    InChild([&] {
        BecomeSomebodyElse();
        Trace(L"line");
        WaitUntilWritten(LogPath());
    });
    EXPECT_THAT(RecordsOf(LogPath()), SizeIs(1));
}

TEST_F(HostileFileTest, ALinkToSomebodyElsesFile) {
    SKIP_UNLESS_ROOT()
    std::filesystem::permissions(m_strTarget, std::filesystem::perms(0666));
    std::filesystem::create_symlink(m_strTarget, LogPath());
    ExpectLinesInFallback(2, BecomeSomebodyElse);
    EXPECT_EQ(ReadWholeFile(m_strTarget), "another's text");
}

// ---- File systems that refuse ----

// The log's file is on a small file system that the child mounts.
class MountTest : public HostileFileTest {
protected:
    void SetUp() override {
        std::filesystem::create_directory(m_strMount);
        setenv("VEX_TEST_LOG_DIR", m_strMount.c_str(), 1);
        const ChildEnd probe = RunChild([&] {
            if (!HaveOwnMounts() || !MountSmall(m_strMount)) {
                _exit(77);
            }
        });
        if (!probe.Passed()) {
            GTEST_SKIP() << "skipped: this process may not mount file systems of its own";
        }
    }

    void Mount(unsigned long nFlags = 0) {
        ASSERT_TRUE(HaveOwnMounts());
        ASSERT_TRUE(MountSmall(m_strMount, nFlags));
    }

    const std::string m_strMount = m_directory.Path("mount");
};

TEST_F(MountTest, AReadOnlyFileSystem) {
    ExpectLinesInFallback(2, [&] { Mount(MS_RDONLY); });
}

TEST_F(MountTest, NowhereToWrite) {
    InChild([&] {
        Mount(MS_RDONLY);
        ASSERT_EQ(chdir(m_strMount.c_str()), 0);
        constexpr int kLines = 100;
        for (int i = 0; i < kLines; ++i) {
            Trace(L"lost");
        }
        file_calls::WaitFor("VexCreateFile", kLines);
    });
    EXPECT_THAT(FilesInWorkingDirectory(), IsEmpty());
}

TEST_F(MountTest, AFullFileSystemAndThenRoomAgain) {
    InChild([&] {
        Mount();
        const std::string strLog = m_strMount + "/PILog.txt";
        std::ofstream(m_strMount + "/filler") << std::string(40'000, 'f');
        int nLines = 0;
        const auto trace = [&nLines](int n) {
            for (int i = 0; i < n; ++i) {
                Trace(std::wstring(1000, L'x') + std::to_wstring(nLines++));
            }
            file_calls::WaitFor("CloseHandle", nLines);
        };
        trace(100);
        EXPECT_LT(std::filesystem::file_size(strLog), 64U * 1024);
        std::filesystem::remove(m_strMount + "/filler");
        trace(10);
        const LogFile file = ReadLogFile(strLog);
        EXPECT_TRUE(file.bHeader);
        ASSERT_GT(file.entries.size(), 10U);
        for (size_t i = 0; i < 9; ++i) {
            const auto record = ParseLogRecord(file.entries[file.entries.size() - 1 - i]);
            ASSERT_TRUE(record);
            EXPECT_TRUE(record->strMessage.ends_with("x" + std::to_string(nLines - 1 - static_cast<int>(i))));
        }
    });
}

// As with a quota or a full disk. The limit's signal (SIGXFSZ) would end the process.
TEST_F(HostileFileTest, WritesThatFail) {
    InChild([&] {
        const rlimit limit = {5'000, RLIM_INFINITY};
        ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
        constexpr int kLines = 20;
        for (int i = 0; i < kLines; ++i) {
            Trace(std::wstring(1000, L'x'));
        }
        file_calls::WaitFor("CloseHandle", kLines);
        const rlimit none = {RLIM_INFINITY, RLIM_INFINITY};
        ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &none), 0);  // a build that measures coverage writes it at the end
    });
    EXPECT_EQ(std::filesystem::file_size(LogPath()), 5'000U);
    const LogFile file = ReadLogFile(LogPath());
    EXPECT_TRUE(file.bHeader);
    ASSERT_GE(file.entries.size(), 4U);
    EXPECT_TRUE(ParseLogRecord(file.entries.front()));
}

// ---- A file that changes under the log ----

TEST_F(HostileFileTest, ADeletedFileIsCreatedAgain) {
    InChild([&] {
        for (const wchar_t* pszText : {L"one", L"two", L"three"}) {
            std::filesystem::remove(LogPath());
            Trace(pszText);
            WaitUntilWritten(LogPath());
        }
    });
    EXPECT_TRUE(ReadLogFile(LogPath()).bHeader);
    EXPECT_THAT(MessagesOf(LogPath()), ElementsAre("three"));
}

TEST_F(HostileFileTest, TheLogGoesOnInAFileThatReplacedTheOld) {
    InChild([&] {
        Trace(L"one");
        WaitUntilWritten(LogPath());
        std::filesystem::rename(LogPath(), m_directory.Path("rotated"));
        m_directory.Write("PILog.txt", "\xFF\xFE");
        Trace(L"two");
        WaitUntilWritten(LogPath());
    });
    EXPECT_THAT(MessagesOf(m_directory.Path("rotated")), ElementsAre("one"));
    EXPECT_THAT(MessagesOf(LogPath()), ElementsAre("two"));
}

TEST_F(HostileFileTest, TheLogGoesOnAtTheBeginningOfAnEmptiedFile) {
    InChild([&] {
        Trace(L"one");
        WaitUntilWritten(LogPath());
        std::filesystem::resize_file(LogPath(), 0);
        Trace(L"two");
        WaitUntilWritten(LogPath());
    });
    EXPECT_THAT(MessagesOf(LogPath()), ElementsAre("two"));
}

// Deletes, replaces and empties the file before every call of the writer. Records may be lost, but the last one is
// whole.
TEST_F(HostileFileTest, TheLogGoesOnWhenTheFileChangesAtAnyCall) {
    const std::function<void()> changes[] = {
        [&] { std::filesystem::remove(LogPath()); },
        [&] {
            m_directory.Write("other", "text\r\n\r\n");
            std::filesystem::rename(m_directory.Path("other"), LogPath());
        },
        [&] {
            std::error_code missing;
            std::filesystem::resize_file(LogPath(), 0, missing);
        },
    };
    for (const auto& fnChange : changes) {
        InChild([&] {
            CDebugLogMgr::GetInstance()->SetTruncate(300, 20);
            int nCalls = 0;
            int nAt = 0;
            file_calls::Watch([&](const file_calls::Call& call) {
                // One call later with each record. The last record is not disturbed.
                if (call.function == "PathIsDirectoryW") {
                    nCalls = 0;
                } else if (call.function != "SHCreateDirectoryExW" && ++nCalls == nAt) {
                    fnChange();
                }
            });
            constexpr int kLines = 20;
            for (nAt = 1; nAt <= kLines; ++nAt) {
                Trace(L"line");
                file_calls::WaitFor("CloseHandle", nAt);
            }
            nAt = 0;
            WaitUntilWritten(LogPath());
            file_calls::WaitFor("CloseHandle", kLines + 1);  // the calls of a cut come after the text
        });
    }
}

}  // namespace
