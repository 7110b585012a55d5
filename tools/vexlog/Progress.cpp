#include "Progress.h"

#include <algorithm>
#include <cstdio>
#include <string>

namespace vexlog {
namespace {

constexpr int kBarWidth = 40;
constexpr auto kInterval = std::chrono::milliseconds(100);
constexpr double kBytesPerMegabyte = 1024.0 * 1024.0;

}  // namespace

Progress::~Progress() {
    if (m_bShown) {
        static_cast<void>(std::fputs("\r\x1b[K", stderr));
    }
}

void Progress::OnProgress(std::uint64_t cbRead, std::uint64_t cbTotal, bool bWaiting) {
    if (bWaiting) {
        m_output.Flush();
    }
    if (!m_bShow || Clock::now() < m_next) {
        return;
    }
    m_next = Clock::now() + kInterval;
    m_bShown = true;
    const double dRead = static_cast<double>(cbRead) / kBytesPerMegabyte;
    if (cbTotal == 0) {
        static_cast<void>(std::fprintf(stderr, "\r%.0f MiB read", dRead));
        return;
    }
    // A log may grow while it is read.
    const double dShare = std::min(1.0, static_cast<double>(cbRead) / static_cast<double>(cbTotal));
    const auto cDone = static_cast<int>(dShare * kBarWidth);
    const std::string strBar = std::string(static_cast<std::size_t>(cDone), '#') +
                               std::string(static_cast<std::size_t>(kBarWidth - cDone), '.');
    static_cast<void>(std::fprintf(stderr, "\r[%s] %3.0f %% of %.0f MiB", strBar.c_str(), 100.0 * dShare,
                                   static_cast<double>(cbTotal) / kBytesPerMegabyte));
}

}  // namespace vexlog
