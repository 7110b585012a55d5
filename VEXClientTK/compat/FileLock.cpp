#include "compat/FileLock.h"

#include <sys/file.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <new>

#include "posix/LockFile.h"

namespace vextk {
namespace {

// Counts the beginnings and the ends of forks. A file that was opened when the count was below s_uFirst was opened by a
// parent process.
std::atomic<unsigned> s_uForks{0};
std::atomic<unsigned> s_uFirst{0};

// Held while a locked file is closed and during a fork. A fork in the middle of a close would keep the lock. It guards
// no data. It is a std::mutex, because a fork gives up waiting for it after a while.
std::mutex s_closing;
bool s_bClosingHeldForFork = false;  // only the thread that forks uses it

// A log record takes far less than a millisecond.
constexpr std::chrono::microseconds kNoWait(0);
constexpr std::chrono::milliseconds kFirstWait(2000);
constexpr std::chrono::microseconds kWaitForBusyFile(500);

// The number of the last file whose lock this process failed to get and has not got since. 0: none.
std::atomic<std::uint64_t> s_uBusyFile{0};

// Identifies a file: the same number for all of its descriptors, and never 0. Two files very likely have different
// numbers.
std::uint64_t NumberOf(int nDescriptor) noexcept {
    constexpr std::uint64_t kSpread = 0x9E37'79B9'7F4A'7C15;
    struct stat status {};
    return fstat(nDescriptor, &status) == 0 ? (status.st_ino * kSpread + status.st_dev) | 1 : 1;
}

}  // namespace

FileLock::FileLock(int nDescriptor, unsigned uForksBeforeOpen) noexcept
    : m_state(State::kFree), m_uForks(uForksBeforeOpen) {
    Take(nDescriptor);
}

bool FileLock::IsOwn() const noexcept {
    return m_uForks >= s_uFirst.load(std::memory_order_relaxed);
}

void FileLock::Take(int nDescriptor) noexcept {
    if (m_state != State::kFree || !IsOwn()) {
        return;
    }
    std::uint64_t uBusyFile = s_uBusyFile.load(std::memory_order_relaxed);
    int nErrno = vexposix::LockFile(nDescriptor, LOCK_EX, kNoWait);
    if (nErrno == EWOULDBLOCK) {
        const std::uint64_t uFile = NumberOf(nDescriptor);
        nErrno = vexposix::LockFile(nDescriptor, LOCK_EX, uFile == uBusyFile ? kWaitForBusyFile : kFirstWait);
        if (nErrno == EWOULDBLOCK) {
            s_uBusyFile.store(uFile, std::memory_order_relaxed);
        }
    }
    const bool bHeld = nErrno == 0;
    if (bHeld && uBusyFile != 0 && uBusyFile == NumberOf(nDescriptor)) {
        s_uBusyFile.compare_exchange_strong(uBusyFile, 0, std::memory_order_relaxed);
    }
    m_state = bHeld ? State::kHeld : State::kWithout;
}

void FileLock::Release(int nDescriptor) noexcept {
    if (m_state == State::kNever || !IsOwn()) {
        return;
    }
    if (m_state == State::kHeld) {
        flock(nDescriptor, LOCK_UN);
    }
    m_state = State::kFree;
}

void FileLock::EndByClosing(vexposix::FileDescriptor& descriptor) noexcept {
    const std::lock_guard lock(s_closing);
    const vexposix::FileDescriptor closing(std::move(descriptor));
    if (m_state == State::kHeld && IsOwn() && m_uForks != Forks()) {
        flock(closing.Get(), LOCK_UN);
    }
    m_state = State::kNever;
}

unsigned FileLock::Forks() noexcept {
    return s_uForks.load(std::memory_order_relaxed);
}

// A disk that does not answer must not delay a fork for long. After the longest wait, the child may keep a file locked.
void FileLock::BeforeFork() noexcept {
    constexpr std::chrono::milliseconds kMaxWait(100);
    s_bClosingHeldForFork = vexposix::TryFor(kMaxWait, [] { return s_closing.try_lock(); });
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
        ::new (static_cast<void*>(&s_closing)) std::mutex;  // the thread that holds it exists only in the parent
    }
}

}  // namespace vextk
