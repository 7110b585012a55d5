// Keeps forks away from libc calls that take locks inside libc. A forked child cannot release such a lock when another
// thread of its parent held it. libc has one lock for the time zone. Wide printf and the first use of a locale's
// conversions take another one.
#pragma once

#include <pthread.h>
#include <sys/time.h>
#include <time.h>

#include <atomic>
#include <ctime>

#include "VEXMutex.h"
#include "VEXThreadSafety.h"
#include "VEXType.h"

// While one exists, other threads that fork wait. Any number of threads may have one at the same time. For calls that
// take microseconds; take no other lock in its scope, and make no second CVEXForkPause there. Any thread.
class CVEXForkPause {
public:
    CVEXForkPause() {
        const CVEXLock lock(s_gate);
        s_nScopes.fetch_add(1, std::memory_order_relaxed);
    }
    CVEXForkPause(const CVEXForkPause&) = delete;
    CVEXForkPause& operator=(const CVEXForkPause&) = delete;
    ~CVEXForkPause() { s_nScopes.fetch_sub(1, std::memory_order_release); }

    // The local time as localtime gives it, without its shared buffer. It follows TZ and the system's time zone when
    // they change. FALSE: the year does not fit.
    BOOL LocalTime(std::time_t time, std::tm& local) const {
        // libc serves one thread at a time in any case, but with a lock that ThreadSanitizer does not see.
        const CVEXLock lock(s_time);
        tzset();  // localtime_r alone would read the time zone once
        return localtime_r(&time, &local) != nullptr;
    }

    // The local time now. FALSE: the clock cannot be read, or the year does not fit.
    BOOL LocalNow(std::tm& local, int& nMicroseconds) const {
        timeval now = {};
        if (gettimeofday(&now, nullptr) != 0) {
            return FALSE;
        }
        nMicroseconds = static_cast<int>(now.tv_usec);
        return LocalTime(now.tv_sec, local);
    }

private:
    // Sleeps between the checks, so that threads of a lower priority can finish.
    static void BeforeFork() VEX_ACQUIRE(s_gate) {
        constexpr timespec wait = {0, 50'000};
        s_gate.Enter();
        while (s_nScopes.load(std::memory_order_acquire) != 0) {
            nanosleep(&wait, nullptr);
        }
    }
    static void AfterFork() VEX_RELEASE(s_gate) { s_gate.Leave(); }

    inline static CVEXMutex s_gate;  // held to enter, and by a fork
    inline static std::atomic<int> s_nScopes{0};
    inline static CVEXMutex s_time;  // taken only within a scope
    // Registered at load time, before any scope can exist.
    [[maybe_unused]] inline static const int s_nForkHandlers = pthread_atfork(BeforeFork, AfterFork, AfterFork);
};
