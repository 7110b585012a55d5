#include "Report.h"

#include <algorithm>
#include <array>
#include <bit>
#include <functional>
#include <map>

#include "ReportParts.h"
#include "posix/Hexadecimal.h"
#include "posix/VisibleText.h"

namespace vexlog {
namespace {

// A hexadecimal digest in Base64, for the content security policy.
constexpr std::array<char, 44> Base64OfHex(std::string_view hex) {
    constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const auto digit = [hex](std::size_t n) -> unsigned {
        return static_cast<unsigned>(vexposix::HexValue(n < hex.size() ? hex[n] : '0'));
    };
    std::array<char, 44> text = {};
    // Three hexadecimal digits are two characters of Base64.
    for (std::size_t i = 0; i < text.size() / 2; ++i) {
        const unsigned nBits = digit(3 * i) << 8 | digit(3 * i + 1) << 4 | digit(3 * i + 2);
        text[2 * i] = kAlphabet[nBits >> 6];
        text[2 * i + 1] = kAlphabet[nBits & 0x3F];
    }
    text[43] = '=';
    return text;
}

constexpr std::array<char, 44> kScriptHash = Base64OfHex(kReportScriptSha256);
constexpr std::array<char, 44> kStyleHash = Base64OfHex(kReportStyleSha256);

// These numbers stand for a missing duration in the page's data.
constexpr int kDataFailed = -1;
constexpr int kDataOpen = -2;
constexpr int kDataWithoutBegin = -3;

CivilMicroseconds DataDuration(const Call& call) {
    switch (call.outcome) {
        case Outcome::kDone:
            return std::max<CivilMicroseconds>(call.nDuration, 0);
        case Outcome::kFailed:
            return kDataFailed;
        case Outcome::kOpen:
            return kDataOpen;
        case Outcome::kWithoutBegin:
            break;
    }
    return kDataWithoutBegin;
}

// The threads' numbers, in the order of processes.
using Threads = std::map<std::pair<std::int64_t, std::int32_t>, std::size_t>;

Threads ThreadsOf(const std::deque<Call>& calls) {
    Threads threads;
    for (const Call& call : calls) {
        threads.emplace(std::pair(call.nProcess, call.nThread), 0);
    }
    std::size_t nNumber = 0;
    for (auto& [thread, nThread] : threads) {
        nThread = nNumber++;
    }
    return threads;
}

// The bars of a histogram: four for each doubling.
std::map<std::uint64_t, std::uint64_t> Bars(const Histogram& durations) {
    std::map<std::uint64_t, std::uint64_t> bars;
    durations.ForEach([&bars](std::uint64_t nLower, std::uint64_t nCount) {
        const auto cBits = static_cast<unsigned>(std::bit_width(nLower));
        const std::uint64_t nQuarter = cBits <= 3 ? nLower : nLower >> (cBits - 3) << (cBits - 3);
        bars[nQuarter] += nCount;
    });
    return bars;
}

// Control characters and characters that reorder others become visible escapes.
void AppendText(vexposix::OutputBuffer& output, std::string_view text) {
    vexposix::AppendHtml(output, vexposix::Visible(text, true));
}

void AppendCell(vexposix::OutputBuffer& output, std::string_view text) {
    output.Append("<td>");
    AppendText(output, text);
    output.Append("</td>");
}

std::string TimeText(CivilMicroseconds time) {
    return FormatCivil(time, ' ');
}

bool IsApart(const Call& call, const Periods& periods) {
    return periods.IsWrong(call.nBegin) || periods.IsWrong(call.nBegin + call.nDuration);
}

std::string_view NameOf(Kind damaged) {
    return damaged == Kind::kFragment ? "fragment" : damaged == Kind::kContinued ? "torn message" : "torn record";
}

// The periods whose clock was wrong. The page's script adds the calls.
void PrintWrongClocks(const Periods& periods, vexposix::OutputBuffer& output) {
    for (const Period& period : periods.All()) {
        if (period.bWrong) {
            output.Append("<tr>");
            AppendCell(output, TimeText(period.first));
            AppendCell(output, TimeText(period.last));
            AppendCell(output, std::to_string(period.cRecords));
            output.Append("</tr>\n");
            output.WriteWhenFull();
        }
    }
}

// A condition of the selection: "process" and the values, of which one has to match.
struct Condition {
    std::string_view name;
    std::vector<std::string> values;
};

std::vector<Condition> ConditionsOf(const Filter& filter) {
    Condition processes = {"process", {}};
    for (const std::int64_t nProcess : filter.processes) {
        processes.values.push_back(std::to_string(nProcess));
    }
    Condition threads = {"thread", {}};
    for (const std::int32_t nThread : filter.threads) {
        threads.values.push_back(std::to_string(nThread));
    }
    Condition since = {"from", {}};
    if (filter.since) {
        since.values.push_back(TimeText(*filter.since));
    }
    Condition until = {"until", {}};
    if (filter.until) {
        until.values.push_back(TimeText(*filter.until));
    }
    std::vector<Condition> conditions = {{"function", filter.functions}, processes, threads, since, until};
    std::erase_if(conditions, [](const Condition& condition) { return condition.values.empty(); });
    return conditions;
}

void AppendTile(vexposix::OutputBuffer& output, std::string_view name, std::uint64_t nValue) {
    output.Append("<div class=\"tile\"><dt>");
    output.Append(name);
    output.Append("</dt><dd>");
    output.AppendNumber(nValue);
    output.Append("</dd></div>");
}

void PrintCalls(const std::deque<Call>& calls, const Threads& threads, const Periods& periods, CivilMicroseconds nStart,
                vexposix::OutputBuffer& output) {
    output.Append(",\n\"calls\":[");
    bool bFirst = true;
    for (const Call& call : calls) {
        output.Append(bFirst ? "" : ",");
        bFirst = false;
        output.AppendNumber(threads.at({call.nProcess, call.nThread}));
        output.Append(',');
        output.AppendNumber(call.nFunction);
        output.Append(',');
        output.AppendNumber(call.nBegin - nStart);
        output.Append(',');
        output.AppendNumber(DataDuration(call));
        output.WriteWhenFull();
    }
    output.Append("],\n\"apart\":[");
    bFirst = true;
    for (std::size_t nCall = 0; nCall < calls.size(); ++nCall) {
        const Call& call = calls[nCall];
        if (IsApart(call, periods)) {
            output.Append(bFirst ? "" : ",");
            bFirst = false;
            output.AppendNumber(nCall);
            output.Append(',');
            output.AppendNumber(call.nBegin + call.nDuration - nStart);
            output.WriteWhenFull();
        }
    }
    output.Append(']');
}

}  // namespace

void Report::OnRecord(const Record& record) {
    const bool bSelected = m_stats.Add(record);
    if (record.time && record.kind != Kind::kContinued) {
        m_clocks.Add(record.input, *record.time, bSelected);
    }
    if (!bSelected) {
        return;
    }
    if (record.bTorn || record.kind == Kind::kFragment) {
        ++m_cDamages;
        if (m_damages.size() < kMostDamages) {
            m_damages.push_back({record.kind, std::string(record.input), record.nOffset, record.cbSize, record.nProcess,
                                 record.nThread, record.time,
                                 std::string(ShortFunction(record.function).substr(0, kMostFunctionBytes))});
        }
    }
}

void Report::OnCall(const Call& call) {
    if (m_calls.size() >= kMostCalls) {
        m_calls.pop_front();
        ++m_cDropped;
    }
    m_calls.push_back(call);
}

void Report::Print(const ReportOrigin& origin, vexposix::OutputBuffer& output) const {
    const Periods periods = m_clocks.Judge(origin.made);
    constexpr std::string_view kHidden = " hidden";
    const std::pair<std::string_view, std::function<void()>> parts[] = {
        {"script", [&] { output.Append(kReportScript); }},
        {"style", [&] { output.Append(kReportStyle); }},
        {"script-hash",
         [&] {
             output.Append({kScriptHash.data(), kScriptHash.size()});
         }},
        {"style-hash",
         [&] {
             output.Append({kStyleHash.data(), kStyleHash.size()});
         }},
        {"summary", [&] { PrintSummary(origin, periods, output); }},
        {"table", [&] { PrintTable(output); }},
        {"left-out", [&] { PrintLeftOut(output); }},
        {"clocks-hidden", [&] { output.Append(periods.CountWrong() == 0 ? kHidden : ""); }},
        {"clocks", [&] { PrintWrongClocks(periods, output); }},
        {"damages-hidden", [&] { output.Append(m_damages.empty() ? kHidden : ""); }},
        {"damages-unlisted", [&] { PrintUnlisted(output); }},
        {"damages", [&] { PrintDamages(output); }},
        {"data", [&] { PrintData(periods, output); }},
    };
    // The page has a name in double braces for each part.
    std::string_view page = kReportPage;
    for (std::size_t nOpen = 0; (nOpen = page.find("{{")) != std::string_view::npos;) {
        output.Append(page.substr(0, nOpen));
        const std::size_t nClose = page.find("}}", nOpen);
        const std::string_view name = page.substr(nOpen + 2, nClose - nOpen - 2);
        page.remove_prefix(nClose + 2);
        for (const auto& [part, fnPrint] : parts) {
            if (part == name) {
                fnPrint();
            }
        }
        output.WriteWhenFull();
    }
    output.Append(page);
}

void Report::PrintSummary(const ReportOrigin& origin, const Periods& periods, vexposix::OutputBuffer& output) const {
    const LogStats& log = m_stats.Log();
    output.Append("<p class=\"source\"><code>");
    AppendText(output, origin.strSource);
    output.Append("</code>");
    if (periods.First()) {
        output.Append(" <span>" + TimeText(*periods.First()) + "</span> to <span>" + TimeText(*periods.Last()) +
                      "</span>");
    }
    output.Append("</p>\n");
    PrintSelection(output);
    output.Append("<p class=\"source\" id=\"made\">Made on <code>");
    AppendText(output, origin.strHost);
    output.Append("</code> at <span>" + FormatCivilSeconds(origin.made, ' ') + "</span> <span>");
    AppendText(output, origin.strZone);
    output.Append("</span>. All other times are as in the log: local times of the processes that wrote it.");
    output.Append("</p>\n<dl class=\"tiles\">");
    FunctionStats sum;
    for (const std::size_t nFunction : m_stats.SortedFunctions()) {
        const FunctionStats& stats = m_stats.Of(nFunction);
        sum.cCalls += stats.cCalls;
        sum.cFailed += stats.cFailed;
        sum.cOpen += stats.cOpen;
    }
    AppendTile(output, "Calls", sum.cCalls);
    AppendTile(output, "Refused or failed", sum.cFailed);
    AppendTile(output, "Open at the end", sum.cOpen);
    AppendTile(output, "Threads", ThreadsOf(m_calls).size());
    AppendTile(output, "Records", log.cRecords);
    AppendTile(output, "Minimal logger", log.cMinimal);
    AppendTile(output, "Torn records", log.cTorn);
    AppendTile(output, "Continued", log.cContinued);
    AppendTile(output, "Fragments", log.cFragments);
    AppendTile(output, "Empty entries", log.cEmpty);
    AppendTile(output, "Wrong clock", periods.CountWrong());
    output.Append("</dl>\n");
    if (m_cDropped > 0) {
        output.Append("<p class=\"note\">The timeline and the list of failures show the last ");
        output.AppendNumber(m_calls.size());
        output.Append(" calls; ");
        output.AppendNumber(m_cDropped);
        output.Append(" earlier calls are only in the numbers by function.</p>\n");
    }
}

// A page about a part of a log must not look like one about the whole log.
void Report::PrintSelection(vexposix::OutputBuffer& output) const {
    const std::vector<Condition> conditions = ConditionsOf(m_stats.Selection());
    if (conditions.empty()) {
        return;
    }
    output.Append("<p class=\"selection\" id=\"selection\">This page shows only a part of the log: ");
    bool bFirst = true;
    for (const auto& [name, values] : conditions) {
        output.Append(bFirst ? "" : "; ");
        bFirst = false;
        output.Append(name);
        for (std::size_t n = 0; n < values.size(); ++n) {
            output.Append(n == 0 ? " <code>" : " or <code>");
            AppendText(output, values[n]);
            output.Append("</code>");
        }
        output.WriteWhenFull();
    }
    output.Append(".</p>\n");
}

void Report::PrintTable(vexposix::OutputBuffer& output) const {
    for (const std::size_t nFunction : m_stats.SortedFunctions()) {
        const FunctionStats& stats = m_stats.Of(nFunction);
        const Histogram& durations = stats.durations;
        output.Append("<tr><th scope=\"row\">");
        AppendText(output, m_stats.FunctionNames()[nFunction]);
        output.Append("</th>");
        AppendCell(output, std::to_string(stats.cCalls));
        output.Append(stats.cFailed > 0 ? "<td class=\"bad\">" : "<td>");
        output.AppendNumber(stats.cFailed);
        output.Append("</td>");
        AppendCell(output, std::to_string(stats.cOpen));
        AppendCell(output, std::to_string(stats.cWithoutBegin));
        for (const std::uint64_t nDuration :
             {durations.Minimum(), durations.Percentile(0.5), durations.Percentile(0.99), durations.Maximum()}) {
            AppendCell(output, durations.Count() == 0 ? "" : DurationText(nDuration, "\xC2\xB5s"));
        }
        output.Append("</tr>\n");
        output.WriteWhenFull();
    }
}

void Report::PrintLeftOut(vexposix::OutputBuffer& output) const {
    std::uint64_t cImpossible = 0;
    for (const std::size_t nFunction : m_stats.SortedFunctions()) {
        cImpossible += m_stats.Of(nFunction).cImpossible;
    }
    if (cImpossible > 0) {
        output.Append("<p class=\"note\" id=\"left-out\">Durations left out here and below: ");
        output.AppendNumber(cImpossible);
        output.Append(
            ". They are less than zero or more than a day, because the clock was changed during the call.</p>\n");
    }
}

void Report::PrintUnlisted(vexposix::OutputBuffer& output) const {
    if (m_cDamages > m_damages.size()) {
        output.Append("The list has the first ");
        output.AppendNumber(m_damages.size());
        output.Append(" of ");
        output.AppendNumber(m_cDamages);
        output.Append('.');
    }
}

void Report::PrintDamages(vexposix::OutputBuffer& output) const {
    for (const Damage& damage : m_damages) {
        const bool bRecord = damage.kind != Kind::kFragment;
        output.Append("<tr>");
        AppendCell(output, (damage.strInput.empty() ? "" : damage.strInput + ": ") + std::to_string(damage.nOffset));
        AppendCell(output, std::to_string(damage.cbSize));
        AppendCell(output, NameOf(damage.kind));
        AppendCell(output, damage.time ? TimeText(*damage.time) : "");
        AppendCell(output, bRecord ? std::to_string(damage.nProcess) : "");
        AppendCell(output, bRecord ? std::to_string(damage.nThread) : "");
        AppendCell(output, damage.strFunction);
        output.Append("</tr>\n");
        output.WriteWhenFull();
    }
}

// {"start":N,"end":N,"threads":[[pid,tid],...],"functions":[{...}],"calls":[thread,function,begin,duration,...],
//  "apart":[call,end,...],"torn":[thread,time,...]}
// Times count from "start". "apart" has the numbers of the calls with a wrong clock.
void Report::PrintData(const Periods& periods, vexposix::OutputBuffer& output) const {
    const Threads threads = ThreadsOf(m_calls);
    std::optional<CivilMicroseconds> start;
    for (const Call& call : m_calls) {
        if (!IsApart(call, periods)) {
            start = std::min(start.value_or(call.nBegin), call.nBegin);
        }
    }
    const CivilMicroseconds nStart = start.value_or(periods.First().value_or(0));
    output.Append("{\"start\":");
    output.AppendNumber(nStart);
    output.Append(",\"end\":");
    output.AppendNumber(std::max(periods.Last().value_or(nStart), nStart) - nStart);
    output.Append(",\"threads\":[");
    for (const auto& [thread, nThread] : threads) {
        output.Append(nThread == 0 ? "[" : ",[");
        output.AppendNumber(thread.first);
        output.Append(',');
        output.AppendNumber(thread.second);
        output.Append(']');
        output.WriteWhenFull();
    }
    output.Append("],\n");
    PrintFunctions(output);
    PrintCalls(m_calls, threads, periods, nStart, output);
    output.Append(",\n\"torn\":[");
    bool bFirst = true;
    for (const Damage& damage : m_damages) {
        const auto thread = threads.find({damage.nProcess, damage.nThread});
        if (damage.kind != Kind::kFragment && damage.time && !periods.IsWrong(*damage.time) && *damage.time >= nStart &&
            thread != threads.end()) {
            output.Append(bFirst ? "" : ",");
            bFirst = false;
            output.AppendNumber(thread->second);
            output.Append(',');
            output.AppendNumber(*damage.time - nStart);
        }
    }
    output.Append("]}");
}

void Report::PrintFunctions(vexposix::OutputBuffer& output) const {
    output.Append("\"functions\":[");
    for (std::size_t nFunction = 0; nFunction < m_stats.FunctionNames().size(); ++nFunction) {
        const Histogram& durations = m_stats.Of(nFunction).durations;
        output.Append(nFunction == 0 ? "{\"name\":" : ",{\"name\":");
        vexposix::AppendJsonString(output, vexposix::Visible(m_stats.FunctionNames()[nFunction], true));
        output.Append(",\"median\":");
        output.AppendNumber(durations.Percentile(0.5));
        output.Append(",\"p99\":");
        output.AppendNumber(durations.Percentile(0.99));
        output.Append(",\"bars\":[");
        bool bFirst = true;
        for (const auto& [nLower, nCount] : Bars(durations)) {
            output.Append(bFirst ? "" : ",");
            bFirst = false;
            output.AppendNumber(nLower);
            output.Append(',');
            output.AppendNumber(nCount);
        }
        output.Append("]}");
        output.WriteWhenFull();
    }
    output.Append(']');
}

}  // namespace vexlog
