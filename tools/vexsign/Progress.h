// Shows on standard error how many files are done, when it takes longer than a second.
#pragma once

#include <chrono>
#include <cstddef>

namespace vexsign {

class Progress {
public:
    // bShow: standard error is a terminal.
    Progress(std::size_t cFiles, bool bShow) : m_cFiles(cFiles), m_bShow(bShow) {}
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    ~Progress() { Remove(); }

    void OnDone(std::size_t cDone);
    // Call this before a message.
    void Remove();

private:
    using Clock = std::chrono::steady_clock;

    const std::size_t m_cFiles;
    const bool m_bShow;
    bool m_bShown = false;
    Clock::time_point m_next = Clock::now() + std::chrono::seconds(1);
};

}  // namespace vexsign
