// For making a thread in a host that has signal handlers of its own.
#pragma once

#include <csignal>

namespace vexposix {

// Blocks all signals in the current thread until the object's end. A thread that is made meanwhile keeps them blocked,
// so it never runs a handler of the host.
class NoSignals {
public:
    NoSignals() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &m_before);
    }
    ~NoSignals() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
    NoSignals(const NoSignals&) = delete;
    NoSignals& operator=(const NoSignals&) = delete;

private:
    sigset_t m_before{};
};

}  // namespace vexposix
