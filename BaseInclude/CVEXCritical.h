// The library's mutex class: a default, non-recursive pthread mutex. Any thread may use it. The header also brings the
// compatibility functions of VEXCompat.h.
#pragma once

#include <pthread.h>

#include "VEXCompat.h"
#include "VEXThreadSafety.h"

class VEX_CAPABILITY("mutex") CVEXCritical {
public:
    CVEXCritical() { pthread_mutex_init(&m_csMain, nullptr); }

    // The copy gets a new, unlocked mutex of its own.
    CVEXCritical(const CVEXCritical&) : CVEXCritical() {}
    CVEXCritical& operator=(const CVEXCritical&) = delete;

    // The mutex must not be locked.
    virtual ~CVEXCritical() { pthread_mutex_destroy(&m_csMain); }

    void EnterVEXCritical() VEX_ACQUIRE() { pthread_mutex_lock(&m_csMain); }
    void LeaveVEXCritical() VEX_RELEASE() { pthread_mutex_unlock(&m_csMain); }

private:
    pthread_mutex_t m_csMain;
};
