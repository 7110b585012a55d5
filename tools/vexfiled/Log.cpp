#include "Log.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <ctime>
#include <string>
#include <utility>

#include "Text.h"

namespace vexfiled {

using namespace std::chrono_literals;

Log::Log(bool bVerbose, Sink fnSink, Clock fnClock)
    : m_bVerbose(bVerbose), m_fnSink(std::move(fnSink)), m_fnClock(std::move(fnClock)), m_lastGain(m_fnClock()) {}

void Log::Refused(std::string_view strText) {
    ReportMissing();
    if (TakeLine()) {
        Write(strText);
    } else {
        ++m_uLeftOut;
    }
}

void Log::ReportMissing() {
    if (ReportLost() && m_uLeftOut > 0 && TakeLine()) {
        Write(Text(std::exchange(m_uLeftOut, 0), " more lines about clients left out"));
    }
}

void Log::Write(std::string_view strText) {
    if (!ReportLost() || !m_fnSink(strText)) {
        ++m_uLost;
    }
}

// True: no lost lines are left to report.
bool Log::ReportLost() {
    if (m_uLost > 0 && m_fnSink(Text(m_uLost, " lines lost: the log could not be written"))) {
        m_uLost = 0;
    }
    return m_uLost == 0;
}

bool Log::TakeLine() {
    const auto now = m_fnClock();
    const auto gained = (now - m_lastGain) / 1s;
    if (gained >= kBurst - m_nLines) {
        m_nLines = kBurst;
        m_lastGain = now;
    } else {
        m_nLines += static_cast<int>(gained);
        m_lastGain += gained * 1s;
    }
    if (m_nLines == 0) {
        return false;
    }
    --m_nLines;
    return true;
}

bool Log::ToStandardError(std::string_view strText) {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    std::array<char, 32> szTime{};
    if (localtime_r(&now, &local) == nullptr ||
        std::strftime(szTime.data(), szTime.size(), "%Y-%m-%d %H:%M:%S ", &local) == 0) {
        szTime[0] = '\0';
    }
    // A pipe that is ready takes PIPE_BUF bytes without waiting. O_NONBLOCK would change it for the other processes
    // that use it.
    std::string strLine = Text(szTime.data(), "vexfiled: ", strText);
    strLine.resize(std::min<std::size_t>(strLine.size(), PIPE_BUF - 1));
    strLine += '\n';
    pollfd descriptor = {STDERR_FILENO, POLLOUT, 0};
    if (poll(&descriptor, 1, 0) == 0) {
        return false;
    }
    ssize_t cbWritten = 0;
    while ((cbWritten = write(STDERR_FILENO, strLine.data(), strLine.size())) < 0 && errno == EINTR) {
    }
    return cbWritten == static_cast<ssize_t>(strLine.size());
}

}  // namespace vexfiled
