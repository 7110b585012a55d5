// Who is using the log manager. Static and never destroyed: threads still log while the process ends, even after the
// manager is destroyed.
#pragma once

#include <atomic>

#include "VEXType.h"

// Decides who destroys the manager: the last thread that leaves it. Any thread.
class CDebugLogUsers {
public:
    // FALSE once Close was called. Each success needs one Leave.
    static BOOL Enter() {
        unsigned int uState = s_uState.load(std::memory_order_relaxed);
        do {
            if ((uState & CLOSED) != 0) {
                return FALSE;
            }
        } while (
            !s_uState.compare_exchange_weak(uState, uState + 1, std::memory_order_acquire, std::memory_order_relaxed));
        return TRUE;
    }

    // TRUE: closed, and this was the last user. The caller destroys the manager.
    static BOOL Leave() { return s_uState.fetch_sub(1, std::memory_order_acq_rel) == (CLOSED | 1U); }

    // No thread can enter any more. TRUE: there is no user, and the caller destroys the manager.
    static BOOL Close() { return s_uState.fetch_or(CLOSED, std::memory_order_acq_rel) == 0; }

    static BOOL IsClosed() { return (s_uState.load(std::memory_order_acquire) & CLOSED) != 0; }

    // In a forked child, which does not have the parent's other threads: there are no users.
    static void Reset() { s_uState.store(0, std::memory_order_release); }

private:
    static constexpr unsigned int CLOSED = 0x80000000U;

    inline static std::atomic<unsigned int> s_uState{0};
};
