#include "Progress.h"

#include <cstdio>

namespace vexsign {

void Progress::OnDone(std::size_t cDone) {
    constexpr auto kInterval = std::chrono::milliseconds(100);
    if (!m_bShow || Clock::now() < m_next) {
        return;
    }
    m_next = Clock::now() + kInterval;
    m_bShown = true;
    static_cast<void>(std::fprintf(stderr, "\r%zu of %zu files", cDone, m_cFiles));
}

void Progress::Remove() {
    if (m_bShown) {
        static_cast<void>(std::fputs("\r\x1b[K", stderr));
        m_bShown = false;
    }
}

}  // namespace vexsign
