// The page of "vexlog report": one self-contained HTML file with a timeline of calls by thread, their durations by
// function, and the list of failures. No text of the log can become markup or script.
#pragma once

#include <deque>
#include <string>

#include "Stats.h"

namespace vexlog {

// Keeps the last kMostCalls calls for the timeline.
class Report : public RecordSink, private CallSink {
public:
    static constexpr std::size_t kMostCalls = 100'000;

    Report() : m_stats(this) {}
    Report(const Report&) = delete;
    Report& operator=(const Report&) = delete;

    void OnRecord(const Record& record) override { m_stats.OnRecord(record); }
    void Finish() { m_stats.Finish(); }

    // strSource: the log's name on the page.
    void Print(const std::string& strSource, vexposix::OutputBuffer& output) const;

private:
    void OnCall(const Call& call) override;
    void PrintSummary(const std::string& strSource, vexposix::OutputBuffer& output) const;
    void PrintTable(vexposix::OutputBuffer& output) const;
    void PrintData(vexposix::OutputBuffer& output) const;
    void PrintFunctions(vexposix::OutputBuffer& output) const;

    Stats m_stats;
    std::deque<Call> m_calls;
    std::uint64_t m_cDropped = 0;
};

}  // namespace vexlog
