// The advisory exclusive lock (flock) of an open file. It replaces the platform's exclusive sharing.
//
// A forked child has a descriptor of the same open file, and closing one of the two descriptors does not end the lock.
// This class ends the lock when the process that took it closes the file.
#pragma once

#include <utility>

#include "posix/FileDescriptor.h"

namespace vextk {

// Any process that can open the file can keep it locked. So the first wait for a file's lock takes two seconds at most.
// If that wait fails, this process waits only half a millisecond each time for that file, until it gets the lock again.
// When it cannot get the lock, or the file system has no locks, it uses the file without a lock.
//
// For one thread at a time, except the static members.
class FileLock {
public:
    // A lock that is never taken.
    FileLock() noexcept = default;

    // Waits for the lock. uForksBeforeOpen: what Forks returned before the file was opened.
    FileLock(int nDescriptor, unsigned uForksBeforeOpen) noexcept;

    FileLock(FileLock&& other) noexcept
        : m_state(std::exchange(other.m_state, State::kNever)), m_uForks(other.m_uForks) {}
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

    // Waits for the lock, unless it is held or a wait has failed since the last Release.
    void Take(int nDescriptor) noexcept;
    void Release(int nDescriptor) noexcept;

    // Closes the descriptor, and so ends the lock if there is one.
    void EndByClosing(vexposix::FileDescriptor& descriptor) noexcept;

    // A number that changes at the beginning and at the end of each fork.
    static unsigned Forks() noexcept;

    // To be called before a fork, and after it in the parent and in the child.
    static void BeforeFork() noexcept;
    static void AfterForkHere() noexcept;
    static void AfterForkThere() noexcept;

private:
    enum class State { kNever, kFree, kHeld, kWithout };

    // Whether this process opened the file. An inherited descriptor's lock is the parent's.
    bool IsOwn() const noexcept;

    State m_state = State::kNever;
    unsigned m_uForks = 0;
};

}  // namespace vextk
