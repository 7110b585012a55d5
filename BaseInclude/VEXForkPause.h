// Calls of libc that take locks of its own, and forks: a forked child never gets such a lock back that another thread
// of its parent held. libc has one for the time zone, and one that wide printf takes and the first use of a locale's
// conversions.
#pragma once

#include <pthread.h>
#include <time.h>

#include <atomic>
#include <ctime>

#include "VEXType.h"

// While there is one, no other thread forks: those that want to wait. Any number of threads have theirs at once. For
// calls that take microseconds; no other lock is taken in its scope, nor a second CVEXForkPause made. Any thread.
class CVEXForkPause {
public:
    CVEXForkPause() {
        Close();
        s_nScopes.fetch_add(1, std::memory_order_relaxed);
        Open();
    }
    CVEXForkPause(const CVEXForkPause&) = delete;
    CVEXForkPause& operator=(const CVEXForkPause&) = delete;
    ~CVEXForkPause() { s_nScopes.fetch_sub(1, std::memory_order_release); }

    // The local time as localtime gives it, without its shared buffer: it follows TZ and the system's time zone as they
    // are at the moment. FALSE: the year does not fit.
    BOOL LocalTime(std::time_t time, std::tm& local) const {
        // libc serves one thread at a time anyhow, with a lock that ThreadSanitizer does not see.
        pthread_mutex_lock(&s_time);
        tzset();  // localtime_r alone would read the time zone once
        const BOOL bFits = localtime_r(&time, &local) != nullptr;
        pthread_mutex_unlock(&s_time);
        return bFits;
    }

private:
    static void Close() { pthread_mutex_lock(&s_gate); }
    static void Open() { pthread_mutex_unlock(&s_gate); }
    // Asleep in between, so that threads of a lower priority come to their ends.
    static void BeforeFork() {
        constexpr timespec wait = {0, 50'000};
        Close();
        while (s_nScopes.load(std::memory_order_acquire) != 0) {
            nanosleep(&wait, nullptr);
        }
    }

    inline static pthread_mutex_t s_gate = PTHREAD_MUTEX_INITIALIZER;  // held to enter, and by a fork
    inline static std::atomic<int> s_nScopes{0};
    inline static pthread_mutex_t s_time = PTHREAD_MUTEX_INITIALIZER;  // only within a scope
    // At load time, before there can be a scope.
    [[maybe_unused]] inline static const int s_nForkHandlers = pthread_atfork(BeforeFork, Open, Open);
};
