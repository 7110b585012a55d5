// Blocks signals in the current thread until the object's end.
#pragma once

#include <csignal>

namespace tools {

class SignalsBlocked {
public:
    // signals: a range of signal numbers.
    template <typename Signals>
    explicit SignalsBlocked(const Signals& signals) {
        sigset_t blocked;
        sigemptyset(&blocked);
        for (const int nSignal : signals) {
            sigaddset(&blocked, nSignal);
        }
        pthread_sigmask(SIG_BLOCK, &blocked, &m_before);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

    // The thread's mask before, which the destructor restores.
    const sigset_t& Before() const { return m_before; }

private:
    sigset_t m_before{};
};

}  // namespace tools
