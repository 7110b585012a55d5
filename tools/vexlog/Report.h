// The page of "vexlog report": one self-contained HTML file with a timeline of calls by thread, their durations by
// function, and lists of failed calls, of records with a wrong clock and of damaged places. No text of the log can
// become markup or script, or change the order in which other text is shown.
#pragma once

#include <deque>
#include <string>
#include <utility>
#include <vector>

#include "LogClocks.h"
#include "ReportOrigin.h"
#include "Stats.h"

namespace vexlog {

// Keeps the last kMostCalls calls for the timeline, and the first kMostDamages damaged places.
class Report : public RecordSink, private CallSink {
public:
    static constexpr std::size_t kMostCalls = 100'000;
    static constexpr std::size_t kMostDamages = 1000;

    // Of the records and calls that the filter passes.
    explicit Report(Filter filter = {}) : m_stats(this, std::move(filter)) {}
    Report(const Report&) = delete;
    Report& operator=(const Report&) = delete;

    void OnRecord(const Record& record) override;
    void Finish() { m_stats.Finish(); }

    void Print(const ReportOrigin& origin, vexposix::OutputBuffer& output) const;

private:
    // A torn record or a fragment.
    struct Damage {
        Kind kind = Kind::kFragment;
        std::string strInput;  // the log, if the page is about several
        std::uint64_t nOffset = 0;
        std::uint64_t cbSize = 0;
        std::int64_t nProcess = 0;
        std::int32_t nThread = 0;
        std::optional<CivilMicroseconds> time;
        std::string strFunction;  // cut to kMostFunctionBytes
    };
    static constexpr std::size_t kMostFunctionBytes = 200;

    void OnCall(const Call& call) override;
    void PrintSummary(const ReportOrigin& origin, const Periods& periods, vexposix::OutputBuffer& output) const;
    void PrintSelection(vexposix::OutputBuffer& output) const;
    void PrintTable(vexposix::OutputBuffer& output) const;
    void PrintLeftOut(vexposix::OutputBuffer& output) const;
    void PrintUnlisted(vexposix::OutputBuffer& output) const;
    void PrintDamages(vexposix::OutputBuffer& output) const;
    void PrintData(const Periods& periods, vexposix::OutputBuffer& output) const;
    void PrintFunctions(vexposix::OutputBuffer& output) const;

    Stats m_stats;
    LogClocks m_clocks;
    std::deque<Call> m_calls;
    std::uint64_t m_cDropped = 0;
    std::vector<Damage> m_damages;
    std::uint64_t m_cDamages = 0;
};

}  // namespace vexlog
