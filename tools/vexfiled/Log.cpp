#include "Log.h"

#include <fcntl.h>
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
#include "common/Message.h"
#include "posix/FileDescriptor.h"
#include "posix/VisibleText.h"

namespace vexfiled {

using namespace std::chrono_literals;

namespace {

// A pipe that is ready takes PIPE_BUF bytes without waiting, but a terminal perhaps one byte. O_NONBLOCK would change
// standard error for the other processes that use it, so a terminal is opened again.
int Target() {
    static const vexposix::FileDescriptor s_terminal(
        isatty(STDERR_FILENO) != 0 ? open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC) : -1);
    return s_terminal.IsOpen() ? s_terminal.Get() : STDERR_FILENO;
}

}  // namespace

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
    if (ReportLost() && m_uLeftOut > 0 && TakeLine() &&
        m_fnSink(Text(m_uLeftOut, " more lines about clients left out"))) {
        m_uLeftOut = 0;
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
    std::string strLine = Text(szTime.data(), "vexfiled: ", vexposix::Visible(strText, tools::LocaleIsUtf8()));
    strLine.resize(std::min<std::size_t>(strLine.size(), PIPE_BUF - 1));
    strLine += '\n';
    const int nTarget = Target();
    pollfd descriptor = {nTarget, POLLOUT, 0};
    if (poll(&descriptor, 1, 0) == 0) {
        return false;
    }
    ssize_t cbWritten = 0;
    while ((cbWritten = write(nTarget, strLine.data(), strLine.size())) < 0 && errno == EINTR) {
    }
    return cbWritten == static_cast<ssize_t>(strLine.size());
}

}  // namespace vexfiled
