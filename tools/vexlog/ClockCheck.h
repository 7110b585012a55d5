// Finds the records whose clock was wrong. A log is written in the order of time. A time that does not fit its place in
// the file comes from another clock, or from a process in another time zone.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "CivilTime.h"

namespace vexlog {

// Times that follow each other without a long gap.
struct Period {
    CivilMicroseconds first = 0;
    CivilMicroseconds last = 0;
    std::uint64_t cRecords = 0;
    bool bWrong = false;
};

// The periods of a log in the order of time, and which of them are wrong.
class Periods {
public:
    explicit Periods(std::vector<Period> periods);

    const std::vector<Period>& All() const { return m_periods; }
    bool IsWrong(CivilMicroseconds time) const;
    std::uint64_t CountWrong() const;  // records

    // The first and the last time of the others. Nothing if the log has no times.
    const std::optional<CivilMicroseconds>& First() const { return m_first; }
    const std::optional<CivilMicroseconds>& Last() const { return m_last; }

private:
    std::vector<Period> m_periods;
    std::optional<CivilMicroseconds> m_first;
    std::optional<CivilMicroseconds> m_last;
};

// Memory is bounded, for a log of any size.
class ClockCheck {
public:
    static constexpr CivilMicroseconds kGap = 3600 * kMicrosecondsPerSecond;
    static constexpr std::size_t kMostRuns = 65'536;
    // The date of the oldest record that can be right. A clock that was never set begins earlier.
    static constexpr int kFirstYear = 2001;

    // In the order of the log.
    void Add(CivilMicroseconds time);

    // A time that is later than now by more than the difference between two time zones is wrong in any case.
    Periods Judge(CivilMicroseconds now) const { return Judge({this}, now); }
    // The periods of several logs, each judged by itself. One that several logs share is wrong if it is in all of them.
    static Periods Judge(const std::vector<const ClockCheck*>& checks, CivilMicroseconds now);

    // The periods in the order of time, none of which is marked as wrong.
    std::vector<Period> Unjudged() const;

private:
    // Records behind one another in the file whose times are near each other.
    struct Run {
        CivilMicroseconds first;
        CivilMicroseconds last;
        std::uint64_t cRecords;
    };

    bool IsNear(const Run& run, CivilMicroseconds first, CivilMicroseconds last) const {
        return first <= run.last + m_nGap && last >= run.first - m_nGap;
    }
    void JoinRuns();
    void MarkUnordered(std::vector<Period>& periods) const;

    std::vector<Run> m_runs;
    CivilMicroseconds m_nGap = kGap;  // larger for a log with very many jumps
};

}  // namespace vexlog
