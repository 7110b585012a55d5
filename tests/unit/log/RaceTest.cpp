// Everything at once, for ThreadSanitizer above all: no lock or counter of the tests stands between the log's threads.
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <set>
#include <thread>

#include "ForkWhile.h"
#include "LogTest.h"
#include "Scale.h"

namespace {

using RaceTest = LogTest;

std::vector<std::thread> StartTracing(int nThreads, const std::function<void(int nThread)>& fnBody) {
    std::vector<std::thread> threads;
    for (int nThread = 0; nThread < nThreads; ++nThread) {
        threads.emplace_back(fnBody, nThread);
    }
    return threads;
}

// With and without function name, below the level and above it, to a changing file and to a directory, which makes the
// writer change the name as well; and the end comes while all this goes on.
TEST_F(RaceTest, SixteenThreadsAChangingNameAndTheEnd) {
    std::filesystem::create_directory(WorkingDirectory() + "/directory");
    const ChildEnd end = RunLogChild(
        [] {
            constexpr int kThreads = 16;
            const int nRecords = Scaled(20'000);
            static auto& threads = *new std::vector<std::thread>(StartTracing(kThreads, [nRecords](int nThread) {
                for (int i = 0; i < nRecords; ++i) {
                    CDebugLogMgr::MacroHelper(L"[INFO] ", i % 3, L"test.cpp", (i + nThread) % 2 == 0 ? L"" : L"F", 7)(
                        L"%s %d", L"wide", i);
                }
            }));
            std::thread changing([] {
                for (int i = 0; i < 200; ++i) {
                    constexpr const wchar_t* kNames[] = {L"first.log", L"a longer name/of a file.log", L"directory",
                                                         L""};
                    CDebugLogMgr::GetInstance()->SetLogFileName(kNames[i % 4]);
                    CDebugLogMgr::GetInstance()->WithFunctionName(i % 2);
                    std::this_thread::yield();
                }
            });
            changing.join();
            for (std::thread& thread : threads) {
                thread.detach();
            }
        },
        Exit::kByReturn);
    EXPECT_EQ(end.nStatus, 0);
}

TEST_F(RaceTest, AllThreadsAtTheFirstTrace) {
    InChild([&] {
        std::vector<std::thread> threads =
            StartTracing(16, [](int nThread) { Trace(L"thread " + std::to_wstring(nThread)); });
        for (std::thread& thread : threads) {
            thread.join();
        }
        WaitUntilWritten(LogPath());
    });
    EXPECT_EQ(RecordsOf(LogPath()).size(), 16U);
}

// A host that forks while its threads trace: the child can trace and end, and no record is there twice.
TEST_F(RaceTest, AForkNeitherHangsTheChildNorDuplicatesRecords) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "skipped: the sanitizer's allocator leaves a forked child the locks of the other threads";
#endif
    constexpr int kThreads = 4;
    constexpr int kOfChild = 3;
    const int nForks = Scaled(200);
    InChild([&] {
        CDebugLogMgr::GetInstance()->SetTruncate(0x200000, 0);
        std::atomic<bool> bEnd = false;
        std::atomic<int> nRecords = 0;
        std::vector<std::thread> threads = StartTracing(kThreads, [&](int) {
            while (!bEnd) {
                Trace(L"parent " + std::to_wstring(nRecords++));
                usleep(500);
            }
        });
        for (int nFork = 0; nFork < nForks; ++nFork) {
            const pid_t nChild = fork();
            ASSERT_GE(nChild, 0);
            if (nChild == 0) {
                alarm(60);
                for (int i = 0; i < kOfChild; ++i) {
                    Trace(L"child " + std::to_wstring(nFork * kOfChild + i));
                }
                // Ended in the middle of a record it would leave half of one, to which the next would be added.
                WaitUntilWritten(LogPath());
                _exit(0);
            }
            int nStatus = -1;
            ASSERT_EQ(waitpid(nChild, &nStatus, 0), nChild);
            ASSERT_EQ(nStatus, 0);
        }
        bEnd = true;
        for (std::thread& thread : threads) {
            thread.join();
        }
        WaitUntilWritten(LogPath());
        const auto records = RecordsOf(LogPath());
        std::set<std::string> messages;
        int nOfParent = 0;
        for (const LogRecord& record : records) {
            EXPECT_TRUE(messages.insert(record.strMessage).second) << "twice: " << record.strMessage;
            nOfParent += record.strMessage.starts_with("parent") ? 1 : 0;
        }
        EXPECT_EQ(nOfParent, nRecords);
        EXPECT_EQ(static_cast<int>(records.size()) - nOfParent, nForks * kOfChild);
        EXPECT_EQ(ReadLogFile(LogPath()).strUnfinished, "");
    });
}

// The process that forks while another thread of it makes the log.
TEST_F(RaceTest, AForkDuringTheFirstTraceLeavesTheChildALog) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "skipped: the sanitizer's allocator leaves a forked child the locks of the other threads";
#endif
    const int nTimes = Scaled(200);
    for (int i = 0; i < nTimes; ++i) {
        InChild([i] {
            std::thread first([] { Trace(L"first"); });
            // The fork comes at another moment of the making each time.
            const auto moment = std::chrono::steady_clock::now() + std::chrono::microseconds(i);
            while (std::chrono::steady_clock::now() < moment) {
            }
            const pid_t nChild = fork();
            ASSERT_GE(nChild, 0);
            if (nChild == 0) {
                alarm(10);
                Trace(L"child");
                _exit(0);
            }
            int nStatus = -1;
            ASSERT_EQ(waitpid(nChild, &nStatus, 0), nChild);
            EXPECT_EQ(nStatus, 0);
            first.join();
        });
    }
}

// libc has locks that formatting a record takes and a fork does not.
TEST_F(RaceTest, AForkWhileRecordsAreFormattedLeavesTheChildALog) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "skipped: the sanitizer's allocator leaves a forked child the locks of the other threads";
#endif
    InChild([] {
        CDebugLogMgr::GetInstance()->EnableOutput(FALSE);
        ForkWhile(4, Scaled(300), [] {
            Trace(L"text");
            CDebugLogMgr::GetInstance()->Clear();
        });
    });
}

// popen and the JVM's ProcessBuilder start another program in the child.
TEST_F(RaceTest, AForkedChildRunsItsExitHandlers) {
    InChild([&] {
        Trace(L"parent");
        WaitUntilWritten(LogPath());
        std::fflush(nullptr);
        const pid_t nChild = fork();
        ASSERT_GE(nChild, 0);
        if (nChild == 0) {
            alarm(60);
            Trace(L"child");
            std::exit(testing::Test::HasFailure() ? 1 : 0);
        }
        int nStatus = -1;
        ASSERT_EQ(waitpid(nChild, &nStatus, 0), nChild);
        EXPECT_EQ(nStatus, 0);
        Trace(L"parent again");
        WaitUntilWritten(LogPath());
    });
    int nOfParent = 0;
    for (const LogRecord& record : RecordsOf(LogPath())) {
        nOfParent += record.strMessage.starts_with("parent") ? 1 : 0;
    }
    EXPECT_EQ(nOfParent, 2);
}

}  // namespace
