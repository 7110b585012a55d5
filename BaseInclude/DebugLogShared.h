// What the log's threads share without the log cache's lock. All of it is static and never destroyed: threads still log
// while the process ends, and after the manager is gone.
#pragma once

#include <pthread.h>

#include <atomic>

#include "VEXType.h"

// Decides who destroys the manager: whoever is the last to leave it. Any thread.
class CDebugLogUsers {
public:
    // FALSE once Close was called. Each success is paid back with Leave.
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

    // TRUE: closed, and this was the last user, who now has to destroy the manager.
    static BOOL Leave() { return s_uState.fetch_sub(1, std::memory_order_acq_rel) == (CLOSED | 1U); }

    // Lets nobody in any more. TRUE: there is no user, the caller has to destroy the manager.
    static BOOL Close() { return s_uState.fetch_or(CLOSED, std::memory_order_acq_rel) == 0; }

    static BOOL IsClosed() { return (s_uState.load(std::memory_order_acquire) & CLOSED) != 0; }

    // For the process that a fork made: its users were other threads, which it has not.
    static void Reset() { s_uState.store(0, std::memory_order_release); }

private:
    static constexpr unsigned int CLOSED = 0x80000000U;

    inline static std::atomic<unsigned int> s_uState{0};
};

// Holds a static mutex for its scope.
class CDebugLogLock {
public:
    explicit CDebugLogLock(pthread_mutex_t& mutex) : m_mutex(mutex) { pthread_mutex_lock(&m_mutex); }
    CDebugLogLock(const CDebugLogLock&) = delete;
    CDebugLogLock& operator=(const CDebugLogLock&) = delete;
    ~CDebugLogLock() { pthread_mutex_unlock(&m_mutex); }

private:
    pthread_mutex_t& m_mutex;
};
