#include "Report.h"

#include <algorithm>
#include <array>
#include <bit>
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

void AppendCell(vexposix::OutputBuffer& output, std::string_view text) {
    output.Append("<td>");
    vexposix::AppendHtml(output, text);
    output.Append("</td>");
}

void AppendTile(vexposix::OutputBuffer& output, std::string_view name, std::uint64_t nValue) {
    output.Append("<div class=\"tile\"><dt>");
    output.Append(name);
    output.Append("</dt><dd>");
    output.AppendNumber(nValue);
    output.Append("</dd></div>");
}

}  // namespace

void Report::OnCall(const Call& call) {
    if (m_calls.size() >= kMostCalls) {
        m_calls.pop_front();
        ++m_cDropped;
    }
    m_calls.push_back(call);
}

void Report::Print(const std::string& strSource, vexposix::OutputBuffer& output) const {
    // The page has a name in double braces for each part.
    std::string_view page = kReportPage;
    for (std::size_t nOpen = 0; (nOpen = page.find("{{")) != std::string_view::npos;) {
        output.Append(page.substr(0, nOpen));
        const std::size_t nClose = page.find("}}", nOpen);
        const std::string_view part = page.substr(nOpen + 2, nClose - nOpen - 2);
        page.remove_prefix(nClose + 2);
        if (part == "script") {
            output.Append(kReportScript);
        } else if (part == "style") {
            output.Append(kReportStyle);
        } else if (part == "script-hash") {
            output.Append({kScriptHash.data(), kScriptHash.size()});
        } else if (part == "style-hash") {
            output.Append({kStyleHash.data(), kStyleHash.size()});
        } else if (part == "summary") {
            PrintSummary(strSource, output);
        } else if (part == "table") {
            PrintTable(output);
        } else if (part == "data") {
            PrintData(output);
        }
        output.WriteWhenFull();
    }
    output.Append(page);
}

void Report::PrintSummary(const std::string& strSource, vexposix::OutputBuffer& output) const {
    const LogStats& log = m_stats.Log();
    output.Append("<p class=\"source\"><code>");
    vexposix::AppendHtml(output, strSource);
    output.Append("</code>");
    if (log.first) {
        output.Append(" <span>" + FormatCivil(*log.first, ' ') + "</span> to <span>" + FormatCivil(*log.last, ' ') +
                      "</span>");
    }
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
    AppendTile(output, "Fragments", log.cFragments);
    AppendTile(output, "Empty entries", log.cEmpty);
    output.Append("</dl>\n");
    if (m_cDropped > 0) {
        output.Append("<p class=\"note\">The timeline and the list of failures show the last ");
        output.AppendNumber(m_calls.size());
        output.Append(" calls; ");
        output.AppendNumber(m_cDropped);
        output.Append(" earlier calls are only in the numbers by function.</p>\n");
    }
}

void Report::PrintTable(vexposix::OutputBuffer& output) const {
    for (const std::size_t nFunction : m_stats.SortedFunctions()) {
        const FunctionStats& stats = m_stats.Of(nFunction);
        const Histogram& durations = stats.durations;
        output.Append("<tr><th scope=\"row\">");
        vexposix::AppendHtml(output, m_stats.FunctionNames()[nFunction]);
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

// {"start":N,"end":N,"threads":[[pid,tid],...],"functions":[{...}],"calls":[thread,function,begin,duration,...]}
void Report::PrintData(vexposix::OutputBuffer& output) const {
    const Threads threads = ThreadsOf(m_calls);
    CivilMicroseconds nStart = m_calls.empty() ? 0 : m_calls.front().nBegin;
    for (const Call& call : m_calls) {
        nStart = std::min(nStart, call.nBegin);
    }
    output.Append("{\"start\":");
    output.AppendNumber(nStart);
    output.Append(",\"end\":");
    output.AppendNumber(std::max(m_stats.Log().last.value_or(nStart), nStart) - nStart);
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
    output.Append(",\n\"calls\":[");
    bool bFirst = true;
    for (const Call& call : m_calls) {
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
    output.Append("]}");
}

void Report::PrintFunctions(vexposix::OutputBuffer& output) const {
    output.Append("\"functions\":[");
    for (std::size_t nFunction = 0; nFunction < m_stats.FunctionNames().size(); ++nFunction) {
        const Histogram& durations = m_stats.Of(nFunction).durations;
        output.Append(nFunction == 0 ? "{\"name\":" : ",{\"name\":");
        vexposix::AppendJsonString(output, m_stats.FunctionNames()[nFunction]);
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
