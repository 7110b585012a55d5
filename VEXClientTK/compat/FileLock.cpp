#include "compat/FileLock.h"

#include <sys/file.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <mutex>
#include <new>
#include <thread>

namespace vextk {
namespace {

// Counts the beginnings and the ends of forks. Locks from before s_uFirst are those of the process that this one was
// forked from.
std::atomic<unsigned> s_uForks{0};
std::atomic<unsigned> s_uFirst{0};

// Held while a locked file is closed and while a fork is made: a fork in between would keep the lock.
std::mutex s_closing;
bool s_bClosingHeldForFork = false;  // of the thread that forks

// Calls fnTry until it returns true, for maxWait at most, with longer and longer pauses.
template <typename Try>
bool TryFor(std::chrono::milliseconds maxWait, Try fnTry) {
    constexpr std::chrono::microseconds kFirstPause(20);
    constexpr std::chrono::microseconds kLongestPause(1000);
    if (fnTry()) {
        return true;  // without a look at the clock
    }
    const auto end = std::chrono::steady_clock::now() + maxWait;
    for (auto pause = kFirstPause; std::chrono::steady_clock::now() < end; pause = std::min(pause * 2, kLongestPause)) {
        std::this_thread::sleep_for(pause);
        if (fnTry()) {
            return true;
        }
    }
    return false;
}

}  // namespace

FileLock::FileLock(int nDescriptor, std::chrono::milliseconds maxWait, unsigned uForksBeforeOpen) noexcept
    : m_uForks(uForksBeforeOpen) {
    const bool bDecided = TryFor(maxWait, [&] {
        m_bHeld = flock(nDescriptor, LOCK_EX | LOCK_NB) == 0;
        return m_bHeld || (errno != EWOULDBLOCK && errno != EINTR);
    });
    m_bHeld = m_bHeld && bDecided;
}

void FileLock::EndByClosing(FileDescriptor& descriptor) noexcept {
    const std::lock_guard lock(s_closing);
    const FileDescriptor closing(std::move(descriptor));
    const bool bOwn = m_uForks >= s_uFirst.load(std::memory_order_relaxed);
    if (m_bHeld && bOwn && m_uForks != Forks()) {
        flock(closing.Get(), LOCK_UN);
    }
    m_bHeld = false;
}

unsigned FileLock::Forks() noexcept {
    return s_uForks.load(std::memory_order_relaxed);
}

// A disk that does not answer holds up no fork: the new process may keep a lock then, for which others wait in vain.
void FileLock::BeforeFork() noexcept {
    constexpr std::chrono::milliseconds kMaxWait(100);
    s_bClosingHeldForFork = TryFor(kMaxWait, [] { return s_closing.try_lock(); });
    s_uForks.fetch_add(1, std::memory_order_relaxed);
}

void FileLock::AfterForkHere() noexcept {
    s_uForks.fetch_add(1, std::memory_order_relaxed);
    if (s_bClosingHeldForFork) {
        s_closing.unlock();
    }
}

void FileLock::AfterForkThere() noexcept {
    s_uFirst.store(s_uForks.fetch_add(1, std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    if (s_bClosingHeldForFork) {
        s_closing.unlock();
    } else {
        ::new (static_cast<void*>(&s_closing)) std::mutex;  // locked by a thread that this process has not
    }
}

}  // namespace vextk
