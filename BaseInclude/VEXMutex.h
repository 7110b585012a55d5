// A mutex that clang's thread safety analysis knows, and its lock. std::mutex of libstdc++ has no annotations.
#pragma once

#include <mutex>
#include <type_traits>

#include "VEXThreadSafety.h"

// A std::mutex. A static one is ready before any code runs, and is never destroyed.
class VEX_CAPABILITY("mutex") CVEXMutex {
public:
    constexpr CVEXMutex() = default;
    CVEXMutex(const CVEXMutex&) = delete;
    CVEXMutex& operator=(const CVEXMutex&) = delete;

    // For what no scope can express, such as fork handlers. Everything else uses CVEXLock.
    void Enter() VEX_ACQUIRE() { m_mutex.lock(); }
    void Leave() VEX_RELEASE() { m_mutex.unlock(); }

private:
    friend class CVEXLock;
    friend class CVEXWaitLock;

    std::mutex m_mutex;
};

static_assert(std::is_trivially_destructible_v<CVEXMutex>);

// Holds a CVEXMutex for its scope. It costs less than a lock that can also wait: log lines take many locks.
class VEX_SCOPED_CAPABILITY CVEXLock {
public:
    explicit CVEXLock(CVEXMutex& mutex) VEX_ACQUIRE(mutex) : m_lock(mutex.m_mutex) {}
    CVEXLock(const CVEXLock&) = delete;
    CVEXLock& operator=(const CVEXLock&) = delete;
    ~CVEXLock() VEX_RELEASE() = default;

private:
    std::lock_guard<std::mutex> m_lock;
};

// The same, for the wait functions of std::condition_variable.
class VEX_SCOPED_CAPABILITY CVEXWaitLock {
public:
    explicit CVEXWaitLock(CVEXMutex& mutex) VEX_ACQUIRE(mutex) : m_lock(mutex.m_mutex) {}
    CVEXWaitLock(const CVEXWaitLock&) = delete;
    CVEXWaitLock& operator=(const CVEXWaitLock&) = delete;
    ~CVEXWaitLock() VEX_RELEASE() = default;

    std::unique_lock<std::mutex>& ForWait() { return m_lock; }

private:
    std::unique_lock<std::mutex> m_lock;
};
