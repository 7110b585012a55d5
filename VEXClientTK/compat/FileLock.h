// The advisory exclusive lock (flock) of an open file, which stands for the platform's exclusive sharing.
#pragma once

#include <chrono>
#include <utility>

namespace vextk {

// Whether threads may use one at once: no, but for the fork functions.
class FileLock {
public:
    FileLock() noexcept = default;

    // Waits at most so long for others to give the lock up. Without it (also on a file system that has no locks) the
    // object holds nothing.
    FileLock(int nDescriptor, std::chrono::milliseconds maxWait) noexcept;

    FileLock(FileLock&& other) noexcept
        : m_nDescriptor(std::exchange(other.m_nDescriptor, -1)), m_uForks(other.m_uForks) {}
    FileLock& operator=(FileLock&& other) noexcept {
        std::swap(m_nDescriptor, other.m_nDescriptor);
        std::swap(m_uForks, other.m_uForks);
        return *this;
    }
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

    // The lock ends when the descriptor, which is still open here, is closed. A process that was forked meanwhile has
    // another descriptor of it, with which it would keep the lock: in that case it is given up first. The forked
    // process itself gives nothing up that is not its own.
    ~FileLock();

    bool IsHeld() const noexcept { return m_nDescriptor >= 0; }

    // To be called in the process that forked and in the one that the fork made.
    static void ForkedHere() noexcept;
    static void MadeByFork() noexcept;

private:
    int m_nDescriptor = -1;
    unsigned m_uForks = 0;  // the count when the lock was taken
};

}  // namespace vextk
