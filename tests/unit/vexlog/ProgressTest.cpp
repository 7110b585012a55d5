// What is shown while a long log is read.
#include "Progress.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <array>
#include <list>
#include <thread>

#include "Collected.h"
#include "TempDirectory.h"
#include "posix/FileDescriptor.h"

namespace {

using namespace std::chrono_literals;

constexpr std::uint64_t kMebibyte = std::uint64_t{1} << 20U;

struct Shown {
    bool bTerminal;
    std::uint64_t cbTotal;
    std::string strExpected;
};

TEST(Progress, IsShownOnATerminalAfterASecond) {
    const std::array<Shown, 4> all = {
        {{true, 100 * kMebibyte, "\r[####################....................]  50 % of 100 MiB"},
         {true, 20 * kMebibyte, "\r[########################################] 100 % of 20 MiB"},  // the log grows
         {true, 0, "\r50 MiB read"},
         {false, 100 * kMebibyte, ""}}};
    const vexposix::FileDescriptor null(open("/dev/null", O_WRONLY | O_CLOEXEC));
    vexposix::OutputBuffer output(null.Get());
    std::list<vexlog::Progress> made;
    testing::internal::CaptureStderr();
    const auto begin = std::chrono::steady_clock::now();
    for (const Shown& shown : all) {
        made.emplace_back(output, shown.bTerminal).OnProgress(10 * kMebibyte, shown.cbTotal, false);
    }
    const std::string strAtOnce = testing::internal::GetCapturedStderr();
    if (std::chrono::steady_clock::now() < begin + 1s) {
        EXPECT_EQ(strAtOnce, "");
    }
    std::this_thread::sleep_until(begin + 1500ms);
    auto progress = made.begin();
    for (const Shown& shown : all) {
        testing::internal::CaptureStderr();
        (progress++)->OnProgress(50 * kMebibyte, shown.cbTotal, false);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), shown.strExpected);
    }
    testing::internal::CaptureStderr();
    made.clear();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "\r\x1b[K\r\x1b[K\r\x1b[K") << "each one wipes its line";
}

TEST(Progress, IsToldForOneLogAndForSeveral) {
    struct Calls : vexlog::ReadObserver {
        void OnProgress(std::uint64_t cbRead, std::uint64_t cbTotal, bool bWaiting) override {
            cRead = cbRead;
            cTotal = cbTotal;
            bWaited = bWaited || bWaiting;
        }
        std::uint64_t cRead = 0;
        std::uint64_t cTotal = 0;
        bool bWaited = false;
    };
    const TempDirectory directory;
    const std::string strText = "[INFO] [P4711] [T1] [2026-11-20 10:00:00:000] [a.cpp-F(1)]: text\r\n\r\n";
    directory.Write("one", strText);
    directory.Write("two", strText);
    for (const std::size_t cLogs : {1U, 2U}) {
        std::vector<std::string> paths = {directory.Path("one"), directory.Path("two")};
        paths.resize(cLogs);
        Collector collector;
        Calls calls;
        vexlog::ReadLogs(paths, collector, calls);
        EXPECT_EQ(calls.cRead, cLogs * strText.size());
        EXPECT_EQ(calls.cTotal, cLogs * strText.size());
        EXPECT_FALSE(calls.bWaited);
    }
}

}  // namespace
