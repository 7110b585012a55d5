// The library's mutex class: a default, non-recursive pthread mutex. Any thread may use it. The header also brings the
// compatibility functions, which VEXCompat.h declares.
#pragma once

#include <pthread.h>

#include "VEXCompat.h"

class CVEXCritical {
public:
    CVEXCritical() { pthread_mutex_init(&m_csMain, nullptr); }

    // A mutex cannot be copied: the copy has a fresh, unlocked one of its own.
    CVEXCritical(const CVEXCritical&) : CVEXCritical() {}
    CVEXCritical& operator=(const CVEXCritical&) = delete;

    // The mutex must not be locked.
    virtual ~CVEXCritical() { pthread_mutex_destroy(&m_csMain); }

    void EnterVEXCritical() { pthread_mutex_lock(&m_csMain); }
    void LeaveVEXCritical() { pthread_mutex_unlock(&m_csMain); }

private:
    pthread_mutex_t m_csMain;
};
