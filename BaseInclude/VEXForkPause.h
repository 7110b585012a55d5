// Keeps forks away from libc calls that take locks inside libc. A forked child cannot release such a lock when another
// thread of its parent held it. libc has one lock for the time zone, one for rand and srand, and one that popen holds
// until the program has started. Wide printf and the first use of a locale's conversions take another one.
#pragma once

#include <pthread.h>
#include <sys/time.h>
#include <time.h>

#include <atomic>
#include <cstdlib>
#include <ctime>

#include "VEXMutex.h"
#include "VEXThreadSafety.h"
#include "VEXType.h"

// While one exists, other threads that fork wait. Any number of threads may have one at the same time. For calls that
// take milliseconds at most; take no other lock in its scope, and make no second CVEXForkPause there. Any thread.
class CVEXForkPause {
public:
    CVEXForkPause() {
        const CVEXLock lock(s_gate);
        s_nScopes.fetch_add(1, std::memory_order_relaxed);
    }
    CVEXForkPause(const CVEXForkPause&) = delete;
    CVEXForkPause& operator=(const CVEXForkPause&) = delete;
    ~CVEXForkPause() { s_nScopes.fetch_sub(1, std::memory_order_release); }

    // The local time as localtime gives it, without its shared buffer. It follows TZ when it changes, or without TZ the
    // system's time zone, then from the next second on. FALSE: the year does not fit.
    BOOL LocalTime(std::time_t time, std::tm& local) const {
        // libc serves one thread at a time in any case, but with a lock that ThreadSanitizer does not see.
        const CVEXLock lock(s_time);
        if (std::getenv("TZ") != nullptr) {
            return Convert(time, local);
        }
        // Without TZ, libc looks at the system's file in each conversion, which takes longer than a log record's text.
        if (time != s_lastTime || !s_bLastFits) {
            s_lastTime = time;
            s_bLastFits = Convert(time, s_lastLocal);
        }
        local = s_lastLocal;
        return s_bLastFits;
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
    static BOOL Convert(std::time_t time, std::tm& local) {
        tzset();  // localtime_r alone would read the time zone once
        return localtime_r(&time, &local) != nullptr;
    }

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
    // The last conversion without TZ.
    inline static std::time_t s_lastTime VEX_GUARDED_BY(s_time) = 0;
    inline static std::tm s_lastLocal VEX_GUARDED_BY(s_time) = {};
    inline static BOOL s_bLastFits VEX_GUARDED_BY(s_time) = FALSE;
    // Registered at load time, before any scope can exist.
    [[maybe_unused]] inline static const int s_nForkHandlers = pthread_atfork(BeforeFork, AfterFork, AfterFork);
};
