// The advisory exclusive lock (flock) of an open file, which stands for the platform's exclusive sharing.
//
// A process that is forked has a descriptor of the same open file, and closing one of the two does not end the lock.
// The class sees to it that it ends all the same when the process that took it closes the file.
#pragma once

#include <chrono>
#include <utility>

#include "FileDescriptor.h"

namespace vextk {

// For one thread at a time, but for the static members.
class FileLock {
public:
    FileLock() noexcept = default;

    // Waits at most so long for others to give the lock up. Without it (also on a file system that has no locks) the
    // object holds nothing. uForksBeforeOpen: what Forks returned before the descriptor was there.
    FileLock(int nDescriptor, std::chrono::milliseconds maxWait, unsigned uForksBeforeOpen) noexcept;

    FileLock(FileLock&& other) noexcept : m_bHeld(std::exchange(other.m_bHeld, false)), m_uForks(other.m_uForks) {}
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

    bool IsHeld() const noexcept { return m_bHeld; }

    // Closes the descriptor, and so ends the lock if there is one.
    void EndByClosing(FileDescriptor& descriptor) noexcept;

    // A number that is another one after each beginning and each end of a fork.
    static unsigned Forks() noexcept;

    // To be called around a fork: before it, after it in the process that forked, and in the one that the fork made.
    static void BeforeFork() noexcept;
    static void AfterForkHere() noexcept;
    static void AfterForkThere() noexcept;

private:
    bool m_bHeld = false;
    unsigned m_uForks = 0;
};

}  // namespace vextk
