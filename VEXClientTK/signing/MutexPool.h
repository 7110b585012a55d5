// Mutexes that many objects share. They are few, so that all can be locked around a fork: the new process then finds
// none of them locked by a thread that it has not, and what they guard whole.
#pragma once

#include <array>
#include <atomic>

#include "VEXMutex.h"

namespace vextk {

// Any thread may call any member. Who holds one of the pool's mutexes takes no second one.
class MutexPool {
public:
    // For an object to keep.
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
