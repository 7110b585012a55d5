#include "compat/FileLock.h"

#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <thread>

namespace vextk {
namespace {

// Forks that this process has made, and the number that it started with: locks from before are its parent's.
std::atomic<unsigned> s_uForks{0};
std::atomic<unsigned> s_uFirst{0};

}  // namespace

FileLock::FileLock(int nDescriptor, std::chrono::milliseconds maxWait) noexcept
    : m_uForks(s_uForks.load(std::memory_order_relaxed)) {
    constexpr std::chrono::microseconds kFirstPause(20);
    constexpr std::chrono::microseconds kLongestPause(1000);
    // No system call when the lock is free at once.
    auto pause = kFirstPause;
    std::chrono::steady_clock::time_point end;
    for (bool bFirst = true;; bFirst = false) {
        if (flock(nDescriptor, LOCK_EX | LOCK_NB) == 0) {
            m_nDescriptor = nDescriptor;
            return;
        }
        if (errno != EWOULDBLOCK && errno != EINTR) {
            return;
        }
        const auto now = std::chrono::steady_clock::now();
        end = bFirst ? now + maxWait : end;
        if (now >= end) {
            return;
        }
        std::this_thread::sleep_for(pause);
        pause = std::min(pause * 2, kLongestPause);
    }
}

FileLock::~FileLock() {
    const unsigned uForks = s_uForks.load(std::memory_order_relaxed);
    const bool bOwn = m_uForks >= s_uFirst.load(std::memory_order_relaxed);
    if (IsHeld() && bOwn && m_uForks != uForks) {
        flock(m_nDescriptor, LOCK_UN);
    }
}

void FileLock::ForkedHere() noexcept {
    s_uForks.fetch_add(1, std::memory_order_relaxed);
}

void FileLock::MadeByFork() noexcept {
    s_uFirst.store(s_uForks.fetch_add(1, std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

}  // namespace vextk
