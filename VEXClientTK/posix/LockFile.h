// Waits for locks with a time limit.
#pragma once

#include <algorithm>
#include <chrono>
#include <thread>

namespace vexposix {

// Calls fnTry until it returns true, with longer and longer pauses, for maxWait at most.
template <typename Try>
bool TryFor(std::chrono::microseconds maxWait, Try fnTry) {
    constexpr std::chrono::microseconds kFirstPause(20);
    constexpr std::chrono::microseconds kLongestPause(1000);
    if (fnTry()) {
        return true;  // does not read the clock
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

// An advisory lock (flock) of an open file, for any thread. nKind: LOCK_EX or LOCK_SH. Returns errno; EWOULDBLOCK:
// somebody else held it for all of maxWait; another number: the file system has no locks.
int LockFile(int nDescriptor, int nKind, std::chrono::microseconds maxWait) noexcept;

}  // namespace vexposix
