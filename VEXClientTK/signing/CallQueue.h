// Lets one call at a time through, in the order of arrival, while it is enabled.
#pragma once

#include <condition_variable>
#include <deque>

#include "signing/MutexPool.h"

namespace vextk {

// Any thread may call any member.
class CallQueue {
public:
    // A call's turn. The constructor waits for it, the destructor ends it.
    class Turn {
    public:
        explicit Turn(CallQueue& queue) : m_pQueue(queue.Enter() ? &queue : nullptr) {}
        ~Turn() {
            if (m_pQueue != nullptr) {
                m_pQueue->Leave();
            }
        }
        Turn(const Turn&) = delete;
        Turn& operator=(const Turn&) = delete;

    private:
        CallQueue* m_pQueue;
    };

    // Affects only calls that arrive later.
    void Enable(bool bEnable) {
        const CVEXLock lock(m_mutex);
        m_bEnabled = bEnable;
    }

    // For the child of a fork. The threads that had a turn or waited for one do not exist there. The analysis cannot
    // see that the child holds all locks of the pool.
    void ForgetOtherThreads() VEX_NO_THREAD_SAFETY_ANALYSIS {
        m_bBusy = false;
        m_waiters.clear();
    }

private:
    struct Waiter {
        std::condition_variable condition;
        bool bTurn = false;
    };

    // False: the queue is disabled, and Leave must not be called.
    bool Enter() {
        CVEXWaitLock lock(m_mutex);
        if (!m_bEnabled) {
            return false;
        }
        if (m_bBusy) {
            Waiter waiter;
            m_waiters.push_back(&waiter);
            waiter.condition.wait(lock.ForWait(), [&waiter] { return waiter.bTurn; });
        }
        m_bBusy = true;
        return true;
    }

    void Leave() {
        const CVEXLock lock(m_mutex);
        if (m_waiters.empty()) {
            m_bBusy = false;
            return;
        }
        // The queue stays busy: the turn passes directly to the next call, so that no new call gets in between. The
        // notification is under the lock, because the waiter is destroyed as soon as it sees its turn.
        Waiter& next = *m_waiters.front();
        m_waiters.pop_front();
        next.bTurn = true;
        next.condition.notify_one();
    }

    CVEXMutex& m_mutex = MutexPool::Next();
    bool m_bEnabled VEX_GUARDED_BY(m_mutex) = false;
    bool m_bBusy VEX_GUARDED_BY(m_mutex) = false;
    std::deque<Waiter*> m_waiters VEX_GUARDED_BY(m_mutex);
};

}  // namespace vextk
