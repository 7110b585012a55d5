// Holds up the first call of one of the toolkit's file functions, on the thread that makes it.
#pragma once

#include <atomic>
#include <latch>
#include <string>
#include <utility>

#include "FileCalls.h"

class HeldUpCall {
public:
    explicit HeldUpCall(std::string strFunction) {
        file_calls::Watch([this, strFunction = std::move(strFunction)](const file_calls::Call& call) {
            if (call.function == strFunction && m_bFirst.exchange(false)) {
                m_begun.count_down();
                m_goOn.wait();
            }
        });
    }
    HeldUpCall(const HeldUpCall&) = delete;
    HeldUpCall& operator=(const HeldUpCall&) = delete;

    void WaitForIt() { m_begun.wait(); }
    void GoOn() { m_goOn.count_down(); }

private:
    std::latch m_begun{1};
    std::latch m_goOn{1};
    std::atomic<bool> m_bFirst = true;
};
