// A few mutexes that many objects share. Because they are few, a thread that forks can lock them all first. The child
// then finds none of them locked by another thread, and the data that they guard is consistent.
#pragma once

#include <array>
#include <atomic>

#include "VEXMutex.h"

namespace vextk {

// Any thread may call any member. A thread that holds a mutex of the pool must not lock a second one.
class MutexPool {
public:
    // An object calls this once and keeps the mutex.
    static CVEXMutex& Next() { return s_mutexes[s_nNext.fetch_add(1, std::memory_order_relaxed) % s_mutexes.size()]; }

    // Before a fork, and after it in the parent and in the child. The analysis cannot follow locks that a loop takes.
    static void LockAll() VEX_NO_THREAD_SAFETY_ANALYSIS {
        for (CVEXMutex& mutex : s_mutexes) {
            mutex.Enter();
        }
    }
    static void UnlockAll() VEX_NO_THREAD_SAFETY_ANALYSIS {
        for (CVEXMutex& mutex : s_mutexes) {
            mutex.Leave();
        }
    }

private:
    inline static std::array<CVEXMutex, 32> s_mutexes;
    inline static std::atomic<std::size_t> s_nNext{0};
};

}  // namespace vextk
