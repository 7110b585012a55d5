// The log while the clock cannot be read.
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <iterator>
#include <thread>

#include "DebugLogMgr.h"
#include "LogFile.h"
#include "LogTest.h"

namespace {

enum class Fails { kNever, kAlways, kInOtherThreads };
std::atomic<Fails> g_fails{Fails::kNever};

}  // namespace

// Instead of libc's.
extern "C" int gettimeofday(timeval* pTime, void* pZone) noexcept {
    const Fails fails = g_fails;
    if (fails == Fails::kAlways || (fails == Fails::kInOtherThreads && gettid() != getpid())) {
        errno = EFAULT;
        return -1;
    }
    return static_cast<int>(syscall(SYS_gettimeofday, pTime, pZone));
}

namespace {

using testing::ElementsAre;

class ClockFailsTest : public LogTest {};

TEST_F(ClockFailsTest, ARecordWithoutATimeIsDropped) {
    InChild([&] {
        Trace(L"before");
        g_fails = Fails::kAlways;
        Trace(L"without");
        g_fails = Fails::kNever;
        Trace(L"after");
        WaitUntilWritten(LogPath());
    });
    EXPECT_THAT(MessagesOf(LogPath()), ElementsAre("before", "after"));
}

// The new name of a file that cannot be opened contains the time.
TEST_F(ClockFailsTest, TheWriterEndsWhenAFileNeedsANewName) {
    InChild([&] {
        const auto countThreads = [] {
            return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
        };
        std::thread([] {}).join();  // together with the first thread, a sanitizer starts one of its own
        const auto nWithoutWriter = countThreads();
        std::filesystem::create_directory(LogPath());
        g_fails = Fails::kInOtherThreads;
        Trace(L"lost");
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (countThreads() > nWithoutWriter && std::chrono::steady_clock::now() < end) {
            std::this_thread::yield();
        }
        EXPECT_EQ(countThreads(), nWithoutWriter);
        g_fails = Fails::kNever;
        Trace(L"has no writer");  // and does not wait for one
    });
    EXPECT_TRUE(std::filesystem::is_empty(LogPath()));
}

}  // namespace
