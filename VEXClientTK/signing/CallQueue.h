// Lets one call at a time through, in the order of arrival, while it is switched on.
#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>

#include "signing/MutexPool.h"

namespace vextk {

// Any thread may call any member.
class CallQueue {
public:
    // A call's turn: waits for it when made, ends it when destroyed.
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

    // Concerns calls that arrive from now on.
    void Enable(bool bEnable) {
        const std::lock_guard lock(m_mutex);
        m_bEnabled = bEnable;
    }

    // In a process that was just forked, whose other threads, which may have had or awaited a turn, do not exist.
    void ForgetOtherThreads() {
        m_bBusy = false;
        m_waiters.clear();
    }

private:
    struct Waiter {
        std::condition_variable condition;
        bool bTurn = false;
    };

    // False when the queue is off and nobody has to leave.
    bool Enter() {
        std::unique_lock lock(m_mutex);
        if (!m_bEnabled) {
            return false;
        }
        if (m_bBusy) {
            Waiter waiter;
            m_waiters.push_back(&waiter);
            waiter.condition.wait(lock, [&waiter] { return waiter.bTurn; });
        }
        m_bBusy = true;
        return true;
    }

    void Leave() {
        const std::lock_guard lock(m_mutex);
        if (m_waiters.empty()) {
            m_bBusy = false;
            return;
        }
        // Still busy: the turn passes on directly, so that no newcomer gets in between. Notified under the lock,
        // because the waiter is gone as soon as it sees its turn.
        Waiter& next = *m_waiters.front();
        m_waiters.pop_front();
        next.bTurn = true;
        next.condition.notify_one();
    }

    std::mutex& m_mutex = MutexPool::Next();
    bool m_bEnabled = false;  // guarded by m_mutex, as all below
    bool m_bBusy = false;
    std::deque<Waiter*> m_waiters;
};

}  // namespace vextk
