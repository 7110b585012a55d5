// The server's log. For one thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string_view>

namespace vexfiled {

class Log {
public:
    using Clock = std::function<std::chrono::steady_clock::time_point()>;
    // False: the line is lost.
    using Sink = std::function<bool(std::string_view strText)>;

    // bVerbose: whether details are written too.
    explicit Log(bool bVerbose, Sink fnSink = ToStandardError, Clock fnClock = std::chrono::steady_clock::now);

    // For what happens a few times in the server's life.
    void Event(std::string_view strText) { Write(strText); }

    // For what clients can cause as often as they like: writes kBurst lines at once and then one per second, so that a
    // flood cannot fill a disk. Counts the others.
    void Refused(std::string_view strText);

    // Reports how many lines were left out or lost, as soon as a line may be written again. Call this from time to
    // time.
    void ReportMissing();

    bool IsVerbose() const { return m_bVerbose; }
    void Detail(std::string_view strText) {
        if (m_bVerbose) {
            Write(strText);
        }
    }

    static constexpr int kBurst = 20;

    // Writes one line, with the local time in front; cuts what is too long for one write. Never waits for a reader: if
    // a pipe or terminal is full, the line is lost.
    static bool ToStandardError(std::string_view strText);

private:
    void Write(std::string_view strText);
    bool ReportLost();
    bool TakeLine();

    bool m_bVerbose;
    Sink m_fnSink;
    Clock m_fnClock;
    int m_nLines = kBurst;  // lines that may be written at once
    std::chrono::steady_clock::time_point m_lastGain;
    std::uint64_t m_uLeftOut = 0;
    std::uint64_t m_uLost = 0;  // lines that the sink could not write
};

}  // namespace vexfiled
