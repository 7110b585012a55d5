// The advisory exclusive lock (flock) of an open file, which stands for the platform's exclusive sharing.
//
// A process that is forked has a descriptor of the same open file, and closing one of the two does not end the lock.
// The class sees to it that it ends all the same when the process that took it closes the file.
#pragma once

#include <utility>

#include "FileDescriptor.h"

namespace vextk {

// Whoever may open the file may lock it for as long as he likes. The first wait for a file's lock therefore takes two
// seconds at most; after one in vain, this process waits only half a millisecond at a time for that file until it gets
// the lock again. Without the lock, and on a file system that has none, the file is used all the same.
//
// For one thread at a time, but for the static members.
class FileLock {
public:
    // Never taken.
    FileLock() noexcept = default;

    // Taken, or waited for in vain. uForksBeforeOpen: what Forks returned before the descriptor was there.
    FileLock(int nDescriptor, unsigned uForksBeforeOpen) noexcept;

    FileLock(FileLock&& other) noexcept
        : m_state(std::exchange(other.m_state, State::kNever)), m_uForks(other.m_uForks) {}
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

    // Nothing happens when it is taken, or was waited for in vain and not released since.
    void Take(int nDescriptor) noexcept;
    void Release(int nDescriptor) noexcept;

    // Closes the descriptor, and so ends the lock if there is one.
    void EndByClosing(FileDescriptor& descriptor) noexcept;

    // A number that is another one after each beginning and each end of a fork.
    static unsigned Forks() noexcept;

    // To be called around a fork: before it, after it in the process that forked, and in the one that the fork made.
    static void BeforeFork() noexcept;
    static void AfterForkHere() noexcept;
    static void AfterForkThere() noexcept;

private:
    enum class State { kNever, kFree, kHeld, kInVain };

    // Whether this process opened the descriptor; one that was forked has it from its parent, whose lock it is.
    bool IsOwn() const noexcept;

    State m_state = State::kNever;
    unsigned m_uForks = 0;
};

}  // namespace vextk
