// The reader of the diagnostic log. It finds the same records whatever the size of the pieces it reads. No byte is in
// two records, and every record is one line without control characters. JSON is UTF-8 with its quotation marks in
// pairs. The text of a log never becomes markup in the report. What continues a record has its fields. A copy of a
// record is the record. As gzip, any bytes are decompressed or refused, the same in pieces of any size.
//
// The first byte of the input is the size of the pieces, the rest is the log. It is read with the usual length limit of
// a record and with the least one, which lines of some hundred bytes exceed.
#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Compression.h"
#include "JsonPrinter.h"
#include "RecordParser.h"
#include "Report.h"
#include "Require.h"
#include "TextPrinter.h"
#include "posix/Utf8Character.h"

namespace {

constexpr int kNowhere = -1;  // writing there fails

bool IsControl(char ch) {
    return static_cast<unsigned char>(ch) < ' ' || ch == '\x7F';
}

void CheckLine(std::string_view line) {
    Require(line.ends_with('\n'));
    line.remove_suffix(1);
    Require(std::none_of(line.begin(), line.end(), IsControl));
    while (!line.empty()) {
        const vexposix::Utf8Character character = vexposix::FirstCharacter(line);
        Require(character.IsUnicode());
        line.remove_prefix(character.cb);
    }
}

void CheckQuotes(std::string_view json) {
    bool bInside = false;
    for (std::size_t i = 0; i < json.size(); ++i) {
        if (bInside && json[i] == '\\') {
            ++i;
        } else if (json[i] == '"') {
            bInside = !bInside;
        }
    }
    Require(!bInside);
}

// Checks each record and keeps it as JSON.
class Checker : public vexlog::RecordSink {
public:
    explicit Checker(std::size_t cbLongest) : m_cbLongest(cbLongest) {}

    void OnRecord(const vexlog::Record& record) override {
        // The longest record has a part as long as the limit, a line as long as the limit, and the line end.
        Require(record.cbSize <= 2 * m_cbLongest + 1 || record.kind == vexlog::Kind::kEmpty);
        Require(record.nOffset >= m_nEnd || record.kind == vexlog::Kind::kEmpty);
        Require(record.kind != vexlog::Kind::kContinued ||
                (record.nProcess == m_nProcess && record.nThread == m_nThread && record.time == m_time));
        if (record.kind == vexlog::Kind::kRecord) {
            m_nProcess = record.nProcess;
            m_nThread = record.nThread;
            m_time = record.time;
        }
        m_nEnd = std::max(m_nEnd, record.kind == vexlog::Kind::kEmpty ? 0 : record.nOffset + record.cbSize);
        for (const bool bUtf8 : {false, true}) {
            m_output.Discard();
            vexlog::TextPrinter(m_output, {false, bUtf8}).OnRecord(record);
            CheckLine(m_output.Pending());
        }
        m_output.Discard();
        vexlog::JsonPrinter(m_output).OnRecord(record);
        CheckLine(m_output.Pending());
        CheckQuotes(m_output.Pending());
        m_lines.emplace_back(m_output.Pending());
        const vexlog::OwnedRecord copy(record);
        m_output.Discard();
        vexlog::JsonPrinter(m_output).OnRecord(copy.View());
        Require(m_output.Pending() == m_lines.back());
    }

    const std::vector<std::string>& Lines() const { return m_lines; }
    std::uint64_t End() const { return m_nEnd; }

private:
    const std::size_t m_cbLongest;
    vexposix::OutputBuffer m_output{kNowhere};
    std::uint64_t m_nEnd = 0;
    // Of the last kRecord
    std::int64_t m_nProcess = 0;
    std::int32_t m_nThread = 0;
    std::optional<vexlog::CivilMicroseconds> m_time;
    std::vector<std::string> m_lines;
};

std::vector<std::string> Parse(std::string_view log, std::size_t cbPiece, std::size_t cbLongest) {
    Checker checker(cbLongest);
    vexlog::RecordParser parser(checker, cbLongest);
    for (std::string_view rest = log; !rest.empty(); rest.remove_prefix(std::min(cbPiece, rest.size()))) {
        parser.Feed(rest.substr(0, cbPiece));
    }
    parser.Finish();
    Require(checker.End() <= log.size());
    return checker.Lines();
}

// At most so many bytes: a short input may be a long text.
constexpr std::size_t kMostInflated = 100'000;

std::string Inflated(std::string_view compressed, std::size_t cbPiece) {
    vexlog::Inflater inflater;
    std::string strText;
    std::vector<char> output(cbPiece);
    for (; !compressed.empty(); compressed.remove_prefix(std::min(cbPiece, compressed.size()))) {
        // A heap block of the exact length
        const std::vector<char> piece(
            compressed.begin(), compressed.begin() + static_cast<std::ptrdiff_t>(std::min(cbPiece, compressed.size())));
        inflater.SetInput({piece.data(), piece.size()});
        while (!inflater.NeedsInput()) {
            const std::optional<std::size_t> cb = inflater.Read(output.data(), output.size());
            if (!cb || strText.size() >= kMostInflated) {
                return strText.substr(0, kMostInflated);
            }
            strText.append(output.data(), *cb);
        }
    }
    return strText.substr(0, kMostInflated);
}

std::size_t CountOf(std::string_view text, std::string_view wanted) {
    std::size_t c = 0;
    for (std::size_t n = 0; (n = text.find(wanted, n)) != std::string_view::npos; n += wanted.size()) {
        ++c;
    }
    return c;
}

// Counts "script" and "<img", and comments, which change where a script element ends.
std::size_t MarkupOf(std::string_view log) {
    vexlog::Report report;
    vexlog::RecordParser parser(report);
    parser.Feed(log);
    parser.Finish();
    report.Finish();
    vexposix::OutputBuffer output(kNowhere);
    report.Print({"log", "host", "UTC", 0}, output);
    return CountOf(output.Pending(), "script") + CountOf(output.Pending(), "<!--") + CountOf(output.Pending(), "<img");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pbData, std::size_t cbData) {
    if (cbData == 0) {
        return 0;
    }
    // A heap block of the exact length, so that AddressSanitizer sees a read behind it.
    const std::vector<char> bytes(pbData + 1, pbData + cbData);
    const std::string_view log(bytes.data(), bytes.size());
    for (const std::size_t cbLongest : {vexlog::RecordParser::kLongest, vexlog::RecordParser::kLeastBound}) {
        const std::vector<std::string> whole = Parse(log, log.size() + 1, cbLongest);
        Require(Parse(log, std::size_t{pbData[0]} + 1, cbLongest) == whole);
    }
    Require(Inflated(log, std::size_t{pbData[0]} + 1) == Inflated(log, log.size() + 1));
    static const std::size_t s_cMarkup = MarkupOf({});
    if (log.find("script") == std::string_view::npos) {
        Require(MarkupOf(log) == s_cMarkup);
    }
    return 0;
}
