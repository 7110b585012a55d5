// Shows a progress bar on standard error when reading a log takes longer than a second.
#pragma once

#include <chrono>

#include "Input.h"
#include "posix/OutputBuffer.h"

namespace vexlog {

class Progress : public ReadObserver {
public:
    // bShow: standard error is a terminal. Flushes the output before the next piece may take long to arrive.
    Progress(vexposix::OutputBuffer& output, bool bShow) : m_output(output), m_bShow(bShow) {}
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    ~Progress() override;

    void OnProgress(std::uint64_t cbRead, std::uint64_t cbTotal, bool bWaiting) override;

private:
    using Clock = std::chrono::steady_clock;

    vexposix::OutputBuffer& m_output;
    const bool m_bShow;
    bool m_bShown = false;
    Clock::time_point m_next = Clock::now() + std::chrono::seconds(1);
};

}  // namespace vexlog
