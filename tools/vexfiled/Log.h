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

    // bVerbose: whether details are written as well.
    explicit Log(bool bVerbose, Sink fnSink = ToStandardError, Clock fnClock = std::chrono::steady_clock::now);

    // What happens a few times in the server's life.
    void Event(std::string_view strText) { Write(strText); }

    // What a client can bring about as often as it likes: kBurst lines at once and one a second in the long run, so
    // that a flood cannot fill a disk. The others are counted.
    void Refused(std::string_view strText);

    // Says how many lines were left out or lost, if any were and a line may be written again. To be called now and
    // then.
    void ReportMissing();

    bool IsVerbose() const { return m_bVerbose; }
    void Detail(std::string_view strText) {
        if (m_bVerbose) {
            Write(strText);
        }
    }

    static constexpr int kBurst = 20;

    // One line with the local time in front; what makes it too long for one write is cut. Never waits for a reader: the
    // line is lost where a pipe is full.
    static bool ToStandardError(std::string_view strText);

private:
    void Write(std::string_view strText);
    bool ReportLost();
    bool TakeLine();

    bool m_bVerbose;
    Sink m_fnSink;
    Clock m_fnClock;
    int m_nLines = kBurst;  // that may be written at once
    std::chrono::steady_clock::time_point m_lastGain;
    std::uint64_t m_uLeftOut = 0;
    std::uint64_t m_uLost = 0;  // to the sink
};

}  // namespace vexfiled
