#include "Stats.h"

#include <algorithm>
#include <cstdio>
#include <numeric>

#include "posix/VisibleText.h"

namespace vexlog {
namespace {

constexpr std::size_t kNameWidth = 22;
constexpr std::size_t kNumberWidth = 11;

void AppendRight(vexposix::OutputBuffer& output, std::string_view text) {
    output.PadTo(output.Length() + (text.size() < kNumberWidth ? kNumberWidth - text.size() : 1));
    output.Append(text);
}

void AppendRow(vexposix::OutputBuffer& output, const std::string& strName, const FunctionStats& stats, bool bUtf8) {
    const std::size_t nBegin = output.Length();
    vexposix::AppendVisible(output, strName, bUtf8);
    output.PadTo(nBegin + kNameWidth);
    for (const std::uint64_t nCount : {stats.cCalls, stats.cFailed, stats.cOpen, stats.cWithoutBegin}) {
        AppendRight(output, std::to_string(nCount));
    }
    const Histogram& durations = stats.durations;
    for (const std::uint64_t nDuration :
         {durations.Minimum(), durations.Percentile(0.5), durations.Percentile(0.99), durations.Maximum()}) {
        AppendRight(output, durations.Count() == 0 ? "-" : DurationText(nDuration));
    }
    output.Append('\n');
    output.WriteWhenFull();
}

void AppendMember(vexposix::OutputBuffer& output, std::string_view name, std::uint64_t nValue) {
    output.Append('"');
    output.Append(name);
    output.Append("\":");
    output.AppendNumber(nValue);
}

void AppendJsonFunction(vexposix::OutputBuffer& output, const std::string& strName, const FunctionStats& stats) {
    output.Append("{\"function\":");
    vexposix::AppendJsonString(output, strName);
    const std::pair<std::string_view, std::uint64_t> counts[] = {{"calls", stats.cCalls},
                                                                 {"failed", stats.cFailed},
                                                                 {"open", stats.cOpen},
                                                                 {"without_enter", stats.cWithoutBegin},
                                                                 {"measured", stats.durations.Count()}};
    for (const auto& [name, nValue] : counts) {
        output.Append(',');
        AppendMember(output, name, nValue);
    }
    if (stats.durations.Count() > 0) {
        const Histogram& durations = stats.durations;
        const std::pair<std::string_view, std::uint64_t> values[] = {{"min_us", durations.Minimum()},
                                                                     {"median_us", durations.Percentile(0.5)},
                                                                     {"p99_us", durations.Percentile(0.99)},
                                                                     {"max_us", durations.Maximum()}};
        for (const auto& [name, nValue] : values) {
            output.Append(',');
            AppendMember(output, name, nValue);
        }
    }
    output.Append('}');
}

}  // namespace

bool Stats::Add(const Record& record) {
    m_matcher.OnRecord(record);
    const bool bPasses = m_filter.Passes(record);
    if (bPasses) {
        Count(record);
    }
    return bPasses;
}

void Stats::Count(const Record& record) {
    switch (record.kind) {
        case Kind::kRecord:
            ++m_log.cRecords;
            break;
        case Kind::kMinimal:
            ++m_log.cMinimal;
            break;
        case Kind::kContinued:
            ++m_log.cContinued;
            return;
        case Kind::kFragment:
            ++m_log.cFragments;
            return;
        case Kind::kEmpty:
            m_log.cEmpty += record.cEmpty;
            return;
    }
    m_log.cTorn += record.bTorn ? 1 : 0;
    if (record.time) {
        m_log.first = std::min(m_log.first.value_or(*record.time), *record.time);
        m_log.last = std::max(m_log.last.value_or(*record.time), *record.time);
    }
}

void Stats::Finish() {
    m_matcher.Finish();
    m_functions.resize(FunctionNames().size());
}

void Stats::OnCall(const Call& call) {
    if (!m_filter.PassesFields(FunctionNames()[call.nFunction], call.nProcess, call.nThread, call.nBegin)) {
        return;
    }
    if (call.nFunction >= m_functions.size()) {
        m_functions.resize(call.nFunction + 1);
    }
    FunctionStats& stats = m_functions[call.nFunction];
    ++stats.cCalls;
    switch (call.outcome) {
        case Outcome::kDone:
            if (call.nDuration >= 0 && call.nDuration <= kLongestCall) {
                stats.durations.Add(static_cast<std::uint64_t>(call.nDuration));
            } else {
                ++stats.cImpossible;
            }
            break;
        case Outcome::kFailed:
            ++stats.cFailed;
            break;
        case Outcome::kOpen:
            ++stats.cOpen;
            break;
        case Outcome::kWithoutBegin:
            ++stats.cWithoutBegin;
            break;
    }
    if (m_pNext != nullptr) {
        m_pNext->OnCall(call);
    }
}

std::vector<std::size_t> Stats::SortedFunctions() const {
    std::vector<std::size_t> numbers(m_functions.size());
    std::iota(numbers.begin(), numbers.end(), std::size_t{0});
    std::erase_if(numbers, [this](std::size_t nFunction) { return m_functions[nFunction].cCalls == 0; });
    std::sort(numbers.begin(), numbers.end(), [&names = FunctionNames()](std::size_t nLeft, std::size_t nRight) {
        return names[nLeft] < names[nRight];
    });
    return numbers;
}

std::string DurationText(std::uint64_t nMicroseconds, const char* pszMicroseconds) {
    char szText[48] = {};
    const auto dValue = static_cast<double>(nMicroseconds);
    if (nMicroseconds < 1000) {
        static_cast<void>(
            std::snprintf(szText, sizeof szText, "%d %s", static_cast<int>(nMicroseconds), pszMicroseconds));
    } else if (nMicroseconds < 1'000'000) {
        static_cast<void>(std::snprintf(szText, sizeof szText, "%.4g ms", dValue / 1e3));
    } else {
        static_cast<void>(std::snprintf(szText, sizeof szText, "%.1f s", dValue / 1e6));
    }
    return szText;
}

void PrintStatsText(const Stats& stats, bool bUtf8, vexposix::OutputBuffer& output) {
    const LogStats& log = stats.Log();
    if (log.first) {
        output.Append("From " + FormatCivil(*log.first, ' ') + " to " + FormatCivil(*log.last, ' ') + "\n");
    }
    const std::pair<std::string_view, std::uint64_t> counts[] = {
        {" records, ", log.cRecords},     {" of the minimal logger, ", log.cMinimal},
        {" torn, ", log.cTorn},           {" continued, ", log.cContinued},
        {" fragments, ", log.cFragments}, {" empty entries\n\n", log.cEmpty}};
    for (const auto& [name, nCount] : counts) {
        output.AppendNumber(nCount);
        output.Append(name);
    }
    const std::size_t nBegin = output.Length();
    output.Append("Function");
    output.PadTo(nBegin + kNameWidth);
    for (const std::string_view title :
         {"Calls", "Failed", "Open", "No Enter", "Minimum", "Median", "p99", "Maximum"}) {
        AppendRight(output, title);
    }
    output.Append('\n');
    for (const std::size_t nFunction : stats.SortedFunctions()) {
        AppendRow(output, stats.FunctionNames()[nFunction], stats.Of(nFunction), bUtf8);
    }
}

void PrintStatsJson(const Stats& stats, vexposix::OutputBuffer& output) {
    const LogStats& log = stats.Log();
    output.Append('{');
    if (log.first) {
        output.Append("\"first\":\"" + FormatCivil(*log.first) + "\",\"last\":\"" + FormatCivil(*log.last) + "\",");
    }
    const std::pair<std::string_view, std::uint64_t> counts[] = {
        {"records", log.cRecords},     {"minimal", log.cMinimal},     {"torn", log.cTorn},
        {"continued", log.cContinued}, {"fragments", log.cFragments}, {"empty", log.cEmpty}};
    for (const auto& [name, nCount] : counts) {
        AppendMember(output, name, nCount);
        output.Append(',');
    }
    output.Append("\"functions\":[");
    bool bFirst = true;
    for (const std::size_t nFunction : stats.SortedFunctions()) {
        output.Append(bFirst ? "" : ",");
        bFirst = false;
        AppendJsonFunction(output, stats.FunctionNames()[nFunction], stats.Of(nFunction));
    }
    output.Append("]}\n");
}

}  // namespace vexlog
