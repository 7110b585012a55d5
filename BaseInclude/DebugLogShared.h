// What the log's threads share without the log cache's lock. All of it is static and never destroyed: threads still log
// while the process ends, and after the manager is gone.
#pragma once

#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <cstddef>

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

// The log file's name as the tracing threads see it: they copy it without a lock while another thread replaces it.
class CDebugLogName {
public:
    // As many characters as can matter: whoever copies 260 or more gets a text that is too long for a path buffer.
    static constexpr std::size_t MAX_COPY = 260;

    using Buffer = wchar_t[MAX_COPY + 1];

    // The first MAX_COPY characters, terminated. Any thread.
    static void Copy(Buffer& szName) {
        for (;;) {
            const unsigned int uBefore = s_uSequence.load(std::memory_order_acquire);
            if (uBefore % 2 == 0) {
                std::size_t nLength = 0;
                // Acquire: if a character is a new one, so is the sequence number that is read afterwards.
                while (nLength < MAX_COPY && (szName[nLength] = s_text[nLength].load(std::memory_order_acquire)) != 0) {
                    ++nLength;
                }
                szName[nLength] = 0;
                if (s_uSequence.load(std::memory_order_relaxed) == uBefore) {
                    return;
                }
            }
            sched_yield();
        }
    }

    // One thread at a time.
    static void Publish(LPCTSTR lpszName) {
        const unsigned int uBefore = s_uSequence.load(std::memory_order_relaxed);
        s_uSequence.store(uBefore + 1, std::memory_order_relaxed);
        std::size_t nLength = 0;
        while (nLength < MAX_COPY && lpszName[nLength] != 0) {
            s_text[nLength].store(lpszName[nLength], std::memory_order_release);
            ++nLength;
        }
        s_text[nLength].store(0, std::memory_order_release);
        s_uSequence.store(uBefore + 2, std::memory_order_release);
    }

private:
    inline static std::atomic<unsigned int> s_uSequence{0};  // odd while the text is being replaced
    inline static std::atomic<wchar_t> s_text[MAX_COPY + 1] = {};
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
