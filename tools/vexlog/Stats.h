// The numbers of "vexlog stats" and of the report's table: by function, and of the whole log. Memory does not grow with
// the log.
#pragma once

#include <utility>
#include <vector>

#include "Calls.h"
#include "Filter.h"
#include "Histogram.h"
#include "posix/OutputBuffer.h"

namespace vexlog {

// A longer duration comes from a clock that was changed.
inline constexpr CivilMicroseconds kLongestCall = 86'400 * kMicrosecondsPerSecond;

struct FunctionStats {
    std::uint64_t cCalls = 0;         // all of the following
    std::uint64_t cFailed = 0;        // refused or failed
    std::uint64_t cOpen = 0;          // still open at the end of the log
    std::uint64_t cWithoutBegin = 0;  // the log has only their end
    std::uint64_t cImpossible = 0;    // the clock was changed during the call: below zero or above kLongestCall
    Histogram durations;              // of the others, in microseconds
};

struct LogStats {
    std::uint64_t cRecords = 0;
    std::uint64_t cMinimal = 0;
    std::uint64_t cContinued = 0;
    std::uint64_t cFragments = 0;
    std::uint64_t cTorn = 0;  // of cRecords and cMinimal
    std::uint64_t cEmpty = 0;
    std::optional<CivilMicroseconds> first;  // the earliest and the latest time of a record
    std::optional<CivilMicroseconds> last;
};

// Counts the records and calls that a filter passes. A call passes if its function, process and thread do, and the time
// of its beginning; the filter's text does not matter. All records are needed to tell how a call ended. Call Finish
// before the numbers are read.
class Stats : public RecordSink, private CallSink {
public:
    // Hands the calls on to pNext, unless it is null.
    explicit Stats(CallSink* pNext = nullptr, Filter filter = {})
        : m_pNext(pNext), m_filter(std::move(filter)), m_matcher(*this) {}
    Stats(const Stats&) = delete;
    Stats& operator=(const Stats&) = delete;

    void OnRecord(const Record& record) override { Add(record); }
    // Returns whether the filter passes the record.
    bool Add(const Record& record);
    void Finish();

    const Filter& Selection() const { return m_filter; }
    const LogStats& Log() const { return m_log; }
    const std::vector<std::string>& FunctionNames() const { return m_matcher.Functions(); }
    const FunctionStats& Of(std::size_t nFunction) const { return m_functions[nFunction]; }
    // The numbers of the functions that have calls, in the order of their names.
    std::vector<std::size_t> SortedFunctions() const;

private:
    void OnCall(const Call& call) override;
    void Count(const Record& record);

    CallSink* m_pNext;
    const Filter m_filter;
    CallMatcher m_matcher;
    LogStats m_log;
    std::vector<FunctionStats> m_functions;
};

void PrintStatsText(const Stats& stats, bool bUtf8, vexposix::OutputBuffer& output);
// One JSON object in one line.
void PrintStatsJson(const Stats& stats, vexposix::OutputBuffer& output);

// "48 us", "1.25 ms", "3.1 s"
std::string DurationText(std::uint64_t nMicroseconds, const char* pszMicroseconds = "us");

}  // namespace vexlog
