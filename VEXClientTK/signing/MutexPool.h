// Mutexes that many objects share. They are few, so that all can be locked around a fork: the new process then finds
// none of them locked by a thread that it has not, and what they guard whole.
#pragma once

#include <array>
#include <atomic>
#include <mutex>

namespace vextk {

// Any thread may call any member. Who holds one of the pool's mutexes takes no second one.
class MutexPool {
public:
    // For an object to keep.
    static std::mutex& Next() { return s_mutexes[s_nNext.fetch_add(1, std::memory_order_relaxed) % s_mutexes.size()]; }

    // Before a fork, and after it in the thread that forked and in the one that it became.
    static void LockAll() {
        for (std::mutex& mutex : s_mutexes) {
            mutex.lock();
        }
    }
    static void UnlockAll() {
        for (std::mutex& mutex : s_mutexes) {
            mutex.unlock();
        }
    }

private:
    inline static std::array<std::mutex, 32> s_mutexes;
    inline static std::atomic<std::size_t> s_nNext{0};
};

}  // namespace vextk
