// A disk that stalls holds up the writer and nobody else, also at the end of the process.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <latch>
#include <thread>

#include "FileCalls.h"
#include "LogTest.h"
#include "Row.h"
#include "Scale.h"

namespace {

using SlowDiskTest = LogTest;

TEST_F(SlowDiskTest, TracingGoesOnWhileTheWriterIsInsideOneWrite) {
    InChild([&] {
        const int nRecords = Scaled(20'000);
        std::latch inWrite(1);
        std::latch goOn(1);
        std::atomic<bool> bFirst = true;
        file_calls::Watch([&](const file_calls::Call& call) {
            if (call.function == "WriteFile" && bFirst.exchange(false)) {
                inWrite.count_down();
                goOn.wait();
            }
        });
        Trace(L"first");
        inWrite.wait();
        // If one of these waited for the disk, it would do so for ever.
        for (int i = 0; i < nRecords; ++i) {
            Trace(L"more");
        }
        EXPECT_EQ(file_calls::Count("WriteFile"), 0);
        goOn.count_down();
        file_calls::WaitFor("CloseHandle", nRecords + 1);
    });
}

// The bounds on times: far from the five seconds of the stall, and the one second may not be less.
constexpr double kAtLeast = 0.9;
constexpr double kBelow = 3.5;

// Its name is that of the function that stalls.
struct Stall : Row {
    int nSeconds;
};

class ExitTest : public LogTest, public testing::WithParamInterface<Stall> {};

TEST_P(ExitTest, AStalledWriterHoldsTheEndUpForOneSecond) {
    std::latch* pStalled = nullptr;
    const ChildEnd end = RunLogChild(
        [&] {
            pStalled = new std::latch(1);  // outlives main, as the writer and what it looks at do
            const Stall& stall = *new Stall(GetParam());
            file_calls::Watch([pStalled, &stall](const file_calls::Call& call) {
                static std::atomic<bool> s_bFirst = true;
                if (call.function == stall.strName && s_bFirst.exchange(false)) {
                    pStalled->count_down();
                    sleep(static_cast<unsigned>(stall.nSeconds));
                }
            });
            CDebugLogMgr::GetInstance()->SetTruncate(10, 20);
            Trace(L"first");
            Trace(L"second");
            pStalled->wait();
        },
        Exit::kByReturn);
    EXPECT_EQ(end.nStatus, 0);
    EXPECT_GE(end.dSeconds, kAtLeast);
    EXPECT_LT(end.dSeconds, kBelow);
}

INSTANTIATE_TEST_SUITE_P(, ExitTest,
                         testing::Values(Stall{"VexCreateFile", 5}, Stall{"WriteFile", 5}, Stall{"SetEndOfFile", 5},
                                         Stall{"CloseHandle", 5}),
                         RowName);

// The writer comes back when the manager has been destroyed and the process is still there: another exit handler, older
// than the log's and run after it, takes its time.
TEST_F(SlowDiskTest, AWriterThatReturnsAfterTheManagersEndDoesNoHarm) {
    for (const char* pszFunction : {"VexCreateFile", "WriteFile", "FlushFileBuffers", "SetEndOfFile", "CloseHandle"}) {
        const ChildEnd end = RunLogChild(
            [&] {
                static const char* s_pszFunction = pszFunction;
                static auto& s_stalled = *new std::latch(1);
                static auto& s_returned = *new std::latch(1);
                std::atexit([] {
                    s_returned.wait();
                    usleep(200'000);  // the time in which it could do harm
                });
                file_calls::Watch([](const file_calls::Call& call) {
                    static std::atomic<bool> s_bFirst = true;
                    if (call.function == s_pszFunction && s_bFirst.exchange(false)) {
                        s_stalled.count_down();
                        usleep(1'500'000);
                        s_returned.count_down();
                    }
                });
                CDebugLogMgr::GetInstance()->SetTruncate(10, 20);
                CDebugLogMgr::GetInstance()->SetLogHeader(L"<a header text of some length>");
                Trace(L"first");
                Trace(L"second");
                s_stalled.wait();
            },
            Exit::kByReturn);
        EXPECT_EQ(end.nStatus, 0) << pszFunction;
    }
}

// The writer goes on when the exit handler has waited for it in vain: then it is the one who closes the file.
TEST_F(SlowDiskTest, TheLastToLeaveClosesTheFileOfTheGlobalMode) {
    const ChildEnd end = RunLogChild(
        [] {
            static auto& s_stalled = *new std::latch(1);
            static auto& s_goOn = *new std::latch(1);
            std::atexit([] {  // older than the log's, and so run after it
                s_goOn.count_down();
                file_calls::WaitFor("CloseHandle", 1);
            });
            file_calls::Watch([](const file_calls::Call& call) {
                static std::atomic<bool> s_bFirst = true;
                if (call.function == "WriteFile" && s_bFirst.exchange(false)) {
                    s_stalled.count_down();
                    s_goOn.wait();
                }
            });
            CDebugLogMgr::GetInstance()->EnableGlobalMode(TRUE);
            Trace(L"text");
            s_stalled.wait();
        },
        Exit::kByReturn);
    EXPECT_EQ(end.nStatus, 0);
}

TEST_F(SlowDiskTest, TheProcessEndsWhileThreadsTrace) {
    const ChildEnd end = RunLogChild(
        [] {
            constexpr int kThreads = 8;
            static auto& s_started = *new std::latch(kThreads);
            for (int i = 0; i < kThreads; ++i) {
                std::thread([] {
                    Trace(L"first");
                    s_started.count_down();
                    for (;;) {
                        Trace(L"more");
                        usleep(100);  // the records of this thread's second fit into memory
                    }
                }).detach();
            }
            s_started.wait();
        },
        Exit::kByReturn);
    EXPECT_EQ(end.nStatus, 0);
    EXPECT_LT(end.dSeconds, kBelow);
}

TEST_F(SlowDiskTest, AnIdleWriterHoldsTheEndUpForOneSecondAsWell) {
    const ChildEnd end = RunLogChild(
        [&] {
            Trace(L"text");
            WaitUntilWritten(LogPath());
        },
        Exit::kByReturn);
    EXPECT_EQ(end.nStatus, 0);
    EXPECT_GE(end.dSeconds, kAtLeast);
    EXPECT_LT(end.dSeconds, kBelow);
    EXPECT_EQ(RecordsOf(LogPath()).size(), 1U);
}

// Calls after the log's end are calls into a program that is about to go: they return.
TEST_F(SlowDiskTest, TracingInALaterExitHandlerReturns) {
    const ChildEnd end = RunLogChild(
        [] {
            std::atexit([] { Trace(L"too late"); });
            Trace(L"in time");
        },
        Exit::kByReturn);
    EXPECT_EQ(end.nStatus, 0);
}

}  // namespace
