// A disk that stalls delays the writer and no other thread, and the end of the process by one second only.
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <ctime>
#include <latch>
#include <thread>

#include "FileCalls.h"
#include "HeldUpCall.h"
#include "LogTest.h"
#include "Scale.h"

namespace {

using SlowDiskTest = LogTest;

TEST_F(SlowDiskTest, TracingGoesOnWhileTheWriterIsInsideOneWrite) {
    InChild([&] {
        const int nRecords = Scaled(20'000);
        HeldUpCall write("WriteFile");
        Trace(L"first");
        write.WaitForIt();
        // If one of these waited for the disk, it would wait for ever.
        for (int i = 0; i < nRecords; ++i) {
            Trace(L"more");
        }
        EXPECT_EQ(file_calls::Count("WriteFile"), 0);
        write.GoOn();
        file_calls::WaitFor("CloseHandle", nRecords + 1);
    });
}

// Bounds of the one second that the exit waits.
constexpr double kAtLeast = 0.9;
constexpr double kBelow = 3.5;

class ExitTest : public LogTest, public testing::WithParamInterface<std::string> {};

TEST_P(ExitTest, AStalledWriterDelaysTheExitByOneSecond) {
    const ChildEnd end = RunLogChild(
        [] {
            auto& stalled = *new HeldUpCall(GetParam());  // for ever; the writer uses it after main
            CDebugLogMgr::GetInstance()->SetTruncate(10, 20);
            Trace(L"first");
            Trace(L"second");
            stalled.WaitForIt();
        },
        Exit::kByReturn);
    EXPECT_EQ(end.nStatus, 0);
    EXPECT_GE(end.dSeconds, kAtLeast);
    EXPECT_LT(end.dSeconds, kBelow);
}

INSTANTIATE_TEST_SUITE_P(, ExitTest, testing::Values("VexCreateFile", "WriteFile", "SetEndOfFile", "CloseHandle"),
                         [](const auto& function) { return function.param; });

// The writer returns from its call after the log's exit handler ran. An older exit handler, which runs later, keeps the
// process alive until then.
TEST_F(SlowDiskTest, AWriterThatReturnsAfterTheExitHandlerDoesNoHarm) {
    for (const char* pszFunction : {"VexCreateFile", "WriteFile", "FlushFileBuffers", "SetEndOfFile", "CloseHandle"}) {
        SCOPED_TRACE(pszFunction);
        InChild(
            [&] {
                static auto& s_stalled = *new HeldUpCall(pszFunction);
                std::atexit([] {
                    s_stalled.GoOn();
                    usleep(200'000);  // the time in which the writer could do harm
                });
                CDebugLogMgr::GetInstance()->SetTruncate(10, 20);
                CDebugLogMgr::GetInstance()->SetLogHeader(L"<a header text of some length>");
                Trace(L"first");
                Trace(L"second");
                s_stalled.WaitForIt();
            },
            Exit::kByReturn);
    }
}

// Here too the writer returns after the exit handler. The writer then closes the file.
TEST_F(SlowDiskTest, TheLastToLeaveClosesTheFileOfTheGlobalMode) {
    InChild(
        [] {
            static auto& s_stalled = *new HeldUpCall("WriteFile");
            std::atexit([] {
                s_stalled.GoOn();
                file_calls::WaitFor("CloseHandle", 1);
            });
            CDebugLogMgr::GetInstance()->EnableGlobalMode(TRUE);
            Trace(L"text");
            s_stalled.WaitForIt();
        },
        Exit::kByReturn);
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

TEST_F(SlowDiskTest, AnIdleWriterDelaysTheExitByOneSecondToo) {
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

// A program may have a timer whose signal handler interrupts its system calls.
TEST_F(SlowDiskTest, AHostsTimerNeitherShortensTheExitNorLengthensIt) {
    const ChildEnd end = RunLogChild(
        [&] {
            Trace(L"text");
            WaitUntilWritten(LogPath());
            struct sigaction action {};
            action.sa_handler = [](int) {};
            ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
            sigevent event = {};
            event.sigev_notify = SIGEV_SIGNAL;
            event.sigev_signo = SIGUSR1;
            timer_t timer = nullptr;
            ASSERT_EQ(timer_create(CLOCK_MONOTONIC, &event, &timer), 0);
            const itimerspec often = {{0, 50'000}, {0, 50'000}};
            ASSERT_EQ(timer_settime(timer, 0, &often, nullptr), 0);
        },
        Exit::kByReturn);
    EXPECT_EQ(end.nStatus, 0);
    EXPECT_GE(end.dSeconds, kAtLeast);
    EXPECT_LT(end.dSeconds, kBelow);
}

TEST_F(SlowDiskTest, TracingInALaterExitHandlerReturns) {
    InChild(
        [] {
            std::atexit([] { Trace(L"too late"); });
            Trace(L"in time");
        },
        Exit::kByReturn);
}

}  // namespace
