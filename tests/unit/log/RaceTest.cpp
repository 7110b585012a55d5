// Many things at the same time, above all for ThreadSanitizer: the tests put no lock of their own between the log's
// threads.
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <set>
#include <thread>

#include "ForkWhile.h"
#include "LogTest.h"
#include "Scale.h"
#include "SystemCalls.h"

namespace {

// Runs once, when the log's exit handler begins to wait.
std::atomic<const std::function<void()>*> s_pAtWait = nullptr;

}  // namespace

// Before that of libc.
extern "C" int nanosleep(const timespec* pTime, timespec* pLeft) {
    static auto* const s_pNext = system_calls::Next(nanosleep, "nanosleep");
    if (const std::function<void()>* const pAtWait = s_pAtWait.exchange(nullptr)) {
        (*pAtWait)();
    }
    return s_pNext(pTime, pLeft);
}

namespace {

using RaceTest = LogTest;

std::vector<std::jthread> StartTracing(int nThreads, const std::function<void(int nThread)>& fnBody) {
    std::vector<std::jthread> threads;
    for (int nThread = 0; nThread < nThreads; ++nThread) {
        threads.emplace_back(fnBody, nThread);
    }
    return threads;
}

// Records with and without a function name, below and above the level. The name changes; for a directory the writer
// changes it as well.
TEST_F(RaceTest, TheProcessEndsWhileThreadsTraceAndTheNameChanges) {
    std::filesystem::create_directory(WorkingDirectory() + "/directory");
    InChild(
        [] {
            constexpr int kThreads = 16;
            const int nRecords = Scaled(20'000);
            static auto& threads = *new std::vector<std::jthread>(StartTracing(kThreads, [nRecords](int nThread) {
                for (int i = 0; i < nRecords; ++i) {
                    CDebugLogMgr::MacroHelper(L"[INFO] ", i % 3, L"test.cpp", (i + nThread) % 2 == 0 ? L"" : L"F", 7)(
                        L"%s %d", L"wide", i);
                }
            }));
            std::thread([] {
                for (int i = 0; i < 200; ++i) {
                    constexpr const char* kNames[] = {"first.log", "a longer name/of a file.log", "directory", ""};
                    SetLogFileName(kNames[i % 4]);
                    CDebugLogMgr::GetInstance()->WithFunctionName(i % 2);
                    std::this_thread::yield();
                }
            }).join();
            for (std::jthread& thread : threads) {
                thread.detach();
            }
        },
        Exit::kByReturn);
}

TEST_F(RaceTest, AllThreadsAtTheFirstTrace) {
    InChild([&] {
        StartTracing(16, [](int nThread) { Trace(L"thread " + std::to_wstring(nThread)); }).clear();
        WaitUntilWritten(LogPath());
    });
    EXPECT_EQ(RecordsOf(LogPath()).size(), 16U);
}

// A host forks while its threads trace.
TEST_F(RaceTest, AForkNeitherHangsTheChildNorDuplicatesRecords) {
    SKIP_FORKS_WITH_ASAN();
    constexpr int kThreads = 4;
    constexpr int kOfChild = 3;
    const int nForks = Scaled(200);
    InChild([&] {
        CDebugLogMgr::GetInstance()->SetTruncate(0x200000, 0);
        std::atomic<bool> bEnd = false;
        std::atomic<int> nRecords = 0;
        std::vector<std::jthread> threads = StartTracing(kThreads, [&](int) {
            while (!bEnd) {
                Trace(L"parent " + std::to_wstring(nRecords++));
                usleep(500);
            }
        });
        for (int nFork = 0; nFork < nForks; ++nFork) {
            InChild([&] {
                for (int i = 0; i < kOfChild; ++i) {
                    Trace(L"child " + std::to_wstring(nFork * kOfChild + i));
                }
                // A child that ends inside a record would leave half of it, and the next record would follow that.
                WaitUntilWritten(LogPath());
            });
        }
        bEnd = true;
        threads.clear();
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

TEST_F(RaceTest, AForkDuringTheFirstTraceLeavesTheChildALog) {
    SKIP_FORKS_WITH_ASAN();
    const int nTimes = Scaled(200);
    for (int i = 0; i < nTimes; ++i) {
        InChild([i] {
            const std::jthread first([] { Trace(L"first"); });
            // The fork comes at a different moment of the log's creation each time.
            const auto moment = std::chrono::steady_clock::now() + std::chrono::microseconds(i);
            while (std::chrono::steady_clock::now() < moment) {
            }
            EXPECT_TRUE(RunChild([] { Trace(L"child"); }).Passed());
        });
    }
}

// Formatting a record takes locks inside libc, which a fork does not take.
TEST_F(RaceTest, AForkWhileRecordsAreFormattedLeavesTheChildALog) {
    SKIP_FORKS_WITH_ASAN();
    InChild([] {
        CDebugLogMgr::GetInstance()->EnableOutput(FALSE);
        ForkWhile(4, Scaled(300), [] {
            Trace(L"text");
            CDebugLogMgr::GetInstance()->Clear();
        });
    });
}

TEST_F(RaceTest, AForkWhileTheParentEndsLeavesTheChildALog) {
    SKIP_FORKS_WITH_ASAN();
    InChild(
        [&] {
            Trace(L"parent");
            WaitUntilWritten(LogPath());
            // Static objects are destroyed before the log's exit handler runs.
            s_pAtWait = new std::function<void()>([strLog = LogPath()] {
                std::thread([&strLog] {
                    static_cast<void>(RunChild([&strLog] {
                        Trace(L"child");
                        WaitUntilWritten(strLog);
                    }));
                }).join();
            });
        },
        Exit::kByReturn);
    EXPECT_EQ(MessagesOf(LogPath()), (std::vector<std::string>{"parent", "child"}));
}

TEST_F(RaceTest, AForkedChildRunsItsExitHandlers) {
    InChild([&] {
        Trace(L"parent");
        WaitUntilWritten(LogPath());
        InChild([] { Trace(L"child"); }, Exit::kByReturn);
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
