#include "Log.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <ctime>
#include <utility>

#include "Text.h"

namespace vexfiled {

using namespace std::chrono_literals;

Log::Log(bool bVerbose, Sink fnSink, Clock fnClock)
    : m_bVerbose(bVerbose), m_fnSink(std::move(fnSink)), m_fnClock(std::move(fnClock)), m_lastGain(m_fnClock()) {}

void Log::Refused(std::string_view strText) {
    ReportLeftOut();
    if (TakeLine()) {
        m_fnSink(strText);
    } else {
        ++m_uLeftOut;
    }
}

void Log::ReportLeftOut() {
    if (m_uLeftOut > 0 && TakeLine()) {
        m_fnSink(Text(std::exchange(m_uLeftOut, 0), " more lines about clients left out"));
    }
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

void Log::ToStandardError(std::string_view strText) {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    std::array<char, 32> szTime{};
    if (localtime_r(&now, &local) == nullptr ||
        std::strftime(szTime.data(), szTime.size(), "%Y-%m-%d %H:%M:%S ", &local) == 0) {
        szTime[0] = '\0';
    }
    const std::string strLine = Text(szTime.data(), "vexfiled: ", strText, '\n');
    // A line that cannot be written is lost: there is nobody else to tell.
    while (write(STDERR_FILENO, strLine.data(), strLine.size()) < 0 && errno == EINTR) {
    }
}

}  // namespace vexfiled
