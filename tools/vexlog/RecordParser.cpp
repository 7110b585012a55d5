#include "RecordParser.h"

#include <algorithm>
#include <charconv>
#include <utility>

#include "Characters.h"
#include "GarbledName.h"
#include "posix/Utf8Character.h"

namespace vexlog {
namespace {

constexpr std::string_view kHeaderEnd = "]: ";
constexpr std::size_t kHeaderCharacters = 259;  // the logger cuts a longer header, which then has no end
constexpr std::size_t kLongestTypeWord = 32;
constexpr std::size_t kLongestType = 64;

// "INFO" of "[INFO] "; other texts without the blanks at their end.
std::string_view BareType(std::string_view type) {
    while (type.ends_with(' ')) {
        type.remove_suffix(1);
    }
    if (type.starts_with('[') && type.find(']') == type.size() - 1) {
        type = type.substr(1, type.size() - 2);
    }
    return type;
}

// "WORD", not "P4711" or "T-12".
bool IsTypeWord(std::string_view word) {
    if (word.empty() || word.size() > kLongestTypeWord || !IsLetter(word.front())) {
        return false;
    }
    if ((word.front() == 'P' || word.front() == 'T') && word.find_first_not_of("-0123456789", 1) == word.npos &&
        word.size() > 1) {
        return false;
    }
    return std::all_of(word.begin(), word.end(),
                       [](char ch) { return IsLetter(ch) || IsDigit(ch) || ch == '_' || ch == '-' || ch == '.'; });
}

// The length in bytes of the text's first characters. Each byte that is no character counts as one.
std::size_t LengthOfCharacters(std::string_view text, std::size_t cCharacters) {
    std::size_t cb = 0;
    while (cCharacters-- > 0 && cb < text.size()) {
        cb += std::max<std::size_t>(vexposix::FirstCharacter(text.substr(cb)).cb, 1);
    }
    return cb;
}

// "path-Function(101)" or "path(101)". Any other text is a path.
void ParseSource(std::string_view source, Record& record) {
    record.file = source;
    const std::size_t nOpen = source.rfind('(');
    if (nOpen == std::string_view::npos || !source.ends_with(')')) {
        return;
    }
    int nLine = 0;
    const char* const pchEnd = source.data() + source.size() - 1;
    const auto [pchParsed, error] = std::from_chars(source.data() + nOpen + 1, pchEnd, nLine);
    if (error != std::errc() || pchParsed != pchEnd) {
        return;
    }
    record.nLine = nLine;
    record.file = source.substr(0, nOpen);
    const std::size_t nDash = record.file.rfind('-');
    if (nDash == std::string_view::npos) {
        return;
    }
    // A dash in a path is followed by more of the path. find_first_of would take most of the time of this function.
    const std::string_view name = record.file.substr(nDash + 1);
    if (std::none_of(name.begin(), name.end(), [](char ch) { return ch == '/' || ch == '\\' || ch == '.'; })) {
        record.function = name;
        record.file = record.file.substr(0, nDash);
    }
}

std::string_view WithoutLineEnds(std::string_view text) {
    const std::size_t nLast = text.find_last_not_of("\r\n");
    return text.substr(0, nLast == std::string_view::npos ? 0 : nLast + 1);
}

}  // namespace

// ---- Bytes to lines ----

void RecordParser::Feed(std::string_view bytes) {
    const std::size_t nDone = std::min({m_last.nBegin, m_item.nBegin, m_nLine});
    m_strBuffer.erase(0, nDone);
    m_nOffset += nDone;
    m_nLine -= nDone;
    m_nSearched = std::max(m_nSearched, nDone) - nDone;
    m_nLastEnd -= m_last.Exists() ? nDone : 0;
    for (Item* const pItem : {&m_last, &m_item}) {
        pItem->nBegin -= pItem->Exists() ? nDone : 0;
    }
    m_strBuffer.append(bytes);
    Scan();
}

void RecordParser::Scan() {
    for (;;) {
        m_nSearched = std::max(m_nSearched, m_nLine);
        const std::size_t nLineFeed = m_strBuffer.find('\n', m_nSearched);
        const std::size_t cbLine = std::min(nLineFeed, m_strBuffer.size()) - m_nLine;
        if (cbLine > m_cbLongest) {
            ScanOverlongLine();
            continue;
        }
        if (nLineFeed == std::string::npos) {
            m_nSearched = m_strBuffer.size();
            return;
        }
        Line line{m_nLine, nLineFeed, !m_bMidLine};
        while (line.nEnd > line.nBegin && m_strBuffer[line.nEnd - 1] == '\r') {
            --line.nEnd;
        }
        const bool bCrLf = line.nEnd < nLineFeed;
        m_nLine = nLineFeed + 1;
        m_bMidLine = false;
        OnLine(line, bCrLf);
        m_bSeenCrLf = m_bSeenCrLf || bCrLf;
        m_bLastCrLf = bCrLf;
        EndIfTooLong();
    }
}

// Handles the first piece of the line as a line.
void RecordParser::ScanOverlongLine() {
    const std::size_t nPieceEnd = m_nLine + m_cbLongest - kLongestCore;
    OnLine({m_nLine, nPieceEnd, !m_bMidLine}, false);
    // The core of a record that begins near the end of the piece may reach into the next piece.
    m_nLine = m_item.Exists() ? std::max(nPieceEnd, m_item.nBegin + m_item.cbType + m_item.core.cbCore) : nPieceEnd;
    m_bMidLine = true;
    EndIfTooLong();
}

void RecordParser::EndIfTooLong() {
    if (m_last.Exists() && m_nLine - m_last.nBegin > m_cbLongest) {
        m_last = {};
        if (m_item.core.kind == Kind::kContinued) {
            m_item.core.kind = Kind::kFragment;
        }
    }
    if (m_item.Exists() && m_nLine - m_item.nBegin > m_cbLongest) {
        End(m_nLine, true);
        HandOverHeld(false);
        m_bEndExpected = true;
    }
}

void RecordParser::Flush() {
    if (m_nLine == m_strBuffer.size()) {
        if (m_item.Exists() && !m_bMidLine) {
            End(m_nLine, false);
            HandOverHeld(false);
            m_bEndExpected = true;
        }
        HandOverEmpty();
    }
}

void RecordParser::Finish() {
    if (m_nLine < m_strBuffer.size()) {
        Line line{m_nLine, m_strBuffer.size(), !m_bMidLine};
        m_nLine = m_strBuffer.size();
        OnLine(line, false);
        End(m_nLine, true);
    } else {
        End(m_nLine, m_bMidLine);
    }
    HandOverHeld(false);
    HandOverEmpty();
    m_nOffset += m_strBuffer.size();
    m_strBuffer.clear();
    m_last = {};
    m_nLine = m_nSearched = 0;
    m_bMidLine = m_bSeenCrLf = m_bLastCrLf = m_bEndExpected = false;
}

// ---- Lines to items ----

void RecordParser::OnLine(Line line, bool bCrLf) {
    if (line.bFresh && View(line.nBegin, line.nEnd).starts_with(kByteOrderMark)) {
        // Another file begins here.
        End(line.nBegin, false);
        HandOverHeld(false);
        HandOverEmpty();
        m_last = {};
        line.nBegin += kByteOrderMark.size();
        if (line.nBegin == line.nEnd && bCrLf) {
            OnEmptyLine(line.nBegin, bCrLf);
            return;
        }
    }
    if (line.nBegin == line.nEnd) {
        if (line.bFresh) {
            OnEmptyLine(line.nBegin, bCrLf);
        }
        return;
    }
    Found found;
    for (std::size_t nFrom = line.nBegin; Find(line, nFrom, found); nFrom = found.nCore + found.core.cbCore) {
        std::size_t nBeforeEnd = found.nType;
        if (View(nFrom, nBeforeEnd).ends_with(kByteOrderMark)) {
            nBeforeEnd -= kByteOrderMark.size();
        }
        if (!m_item.Exists() && nBeforeEnd > nFrom) {
            BeginText(nFrom, line);
        }
        // A record that ends at the end of a line is complete.
        const bool bTorn = nBeforeEnd > line.nBegin || !line.bFresh;
        const bool bMessage = m_item.core.kind == Kind::kRecord || m_item.core.kind == Kind::kContinued;
        if (m_item.Exists() && bMessage && found.core.kind == Kind::kMinimal) {
            Hold(nBeforeEnd, bTorn);
        } else {
            End(nBeforeEnd, bTorn);
        }
        Begin(found);
    }
    if (!m_item.Exists()) {
        BeginText(line.nBegin, line);
    }
}

void RecordParser::OnEmptyLine(std::size_t nBegin, bool bCrLf) {
    if (m_bEndExpected) {
        m_bEndExpected = false;  // it belongs to the record that was handed over before
    } else if (!m_item.Exists()) {
        // A single line feed before CR LF is the rest of a line end that was cut.
        const bool bFirst = m_cEmptyLines == 0 || (bCrLf && !m_bLastCrLf);
        m_cEmptyLines = bFirst ? 1 : m_cEmptyLines + 1;
        m_nEmptyEnd = m_nOffset + m_nLine;
        if (bFirst) {
            m_nEmptyOffset = m_nOffset + nBegin;
        }
    } else if (m_item.core.kind == Kind::kMinimal && bCrLf && !m_bLastCrLf && !m_held.empty()) {
        // The end of the record that the minimal logger wrote into.
        End(nBegin, false);
        HandOverHeld(true);
        m_bEndExpected = true;
    } else if (m_item.core.kind == Kind::kMinimal && bCrLf && !m_bLastCrLf) {
        // The minimal logger ends its lines with LF alone, so this line belongs to an entry without text.
        End(nBegin, false);
        m_cEmptyLines = 1;
        m_nEmptyOffset = m_nOffset + nBegin;
        m_nEmptyEnd = m_nOffset + m_nLine;
    } else if ((bCrLf && m_bLastCrLf) || (!bCrLf && !m_bSeenCrLf)) {
        End(m_nLine, false);
        HandOverHeld(true);
    }
    // Any other empty line is part of the message.
}

bool RecordParser::Find(const Line& line, std::size_t nFrom, Found& found) const {
    // A core in an overlong line may reach into the next piece.
    const std::size_t nLimit = std::min(m_strBuffer.size(), line.nEnd + (line.nEnd < m_nLine ? 0 : kLongestCore));
    const std::string_view searched = View(0, line.nEnd);
    for (std::size_t nAt = searched.find('[', nFrom); nAt != std::string_view::npos;
         nAt = searched.find('[', nAt + 1)) {
        if (ParseCore(View(nAt, nLimit), found.core)) {
            found.nCore = found.nType = nAt;
            if (found.core.kind == Kind::kRecord) {
                found.nType = FindType(nFrom, nAt, line.bFresh && nFrom == line.nBegin && !m_item.Exists());
            }
            return true;
        }
    }
    return false;
}

// The beginning of the type, which stands before the record's first bracket. At the beginning of an entry any text may
// be a type; elsewhere only words in brackets are.
std::size_t RecordParser::FindType(std::size_t nFrom, std::size_t nCore, bool bEntryBegins) const {
    std::size_t nBegin = nCore;
    do {
        std::string_view before = View(nFrom, nBegin);
        before.remove_suffix(before.ends_with(' ') ? 1 : 0);
        const std::size_t nOpen = before.rfind('[');
        if (!before.ends_with(']') || nOpen == std::string_view::npos ||
            !IsTypeWord(before.substr(nOpen + 1, before.size() - nOpen - 2))) {
            break;
        }
        nBegin = nFrom + nOpen;
    } while (bEntryBegins);
    const std::string_view rest = View(nFrom, nBegin);
    const bool bType =
        bEntryBegins && rest.size() <= kLongestType &&
        std::all_of(rest.begin(), rest.end(), [](char ch) { return ch >= ' ' && ch <= '~' && ch != '[' && ch != ']'; });
    return bType ? nFrom : nBegin;
}

// ---- Items to records ----

void RecordParser::Begin(const Found& found) {
    if (found.core.kind != Kind::kMinimal) {
        HandOverHeld(false);
    }
    HandOverEmpty();
    m_bEndExpected = false;
    m_item = {found.nType, found.nCore - found.nType, found.core};
}

// Text that is no record begins here.
void RecordParser::BeginText(std::size_t nBegin, const Line& line) {
    Found found{nBegin, nBegin, RecordCore()};
    if (nBegin == line.nBegin && line.bFresh && MayContinue(View(nBegin, line.nEnd))) {
        found.core.kind = Kind::kContinued;
        m_cEmptyLines = 0;  // they belong to the message
    }
    Begin(found);
}

// Whether the text may be more of the message of the record before it. Zeros, and what looks like the beginning of a
// record or like the rest of a minimal one, are no message.
bool RecordParser::MayContinue(std::string_view text) const {
    if (!m_last.Exists() || text.starts_with('\0')) {
        return false;
    }
    const std::size_t nClose = text.find(']');
    return !text.starts_with('[') || nClose == std::string_view::npos || !IsTypeWord(text.substr(1, nClose - 1));
}

// Ends the current item, if there is one.
void RecordParser::End(std::size_t nEnd, bool bTorn) {
    if (!m_item.Exists()) {
        return;
    }
    Record record = DescribeCurrent(nEnd, bTorn);
    if (record.kind == Kind::kRecord && !record.bTorn) {
        m_last = m_item;
        m_nLastEnd = nEnd;
    } else if (record.kind != Kind::kContinued || record.bTorn) {
        m_last = {};
    }
    m_item = {};
    HandOver(record);
}

// Ends the current item without handing it over, because its end may still follow.
void RecordParser::Hold(std::size_t nEnd, bool bTorn) {
    Record record = DescribeCurrent(nEnd, false);
    m_bHeldIsWhole = !record.bTorn;
    record.bTorn = record.bTorn || bTorn;
    Decode(record);
    m_held.emplace_back(record);
    m_cbHeld = 0;
    m_last = m_item = {};
}

Record RecordParser::DescribeCurrent(std::size_t nEnd, bool bTorn) const {
    const bool bContinued = m_item.core.kind == Kind::kContinued;
    Record record = bContinued ? Describe(m_last, m_nLastEnd) : Describe(m_item, nEnd);
    if (bContinued) {
        record.kind = Kind::kContinued;
        record.nOffset = m_nOffset + m_item.nBegin;
        record.cbSize = nEnd - m_item.nBegin;
        record.message = WithoutLineEnds(View(m_item.nBegin, nEnd));
    }
    record.bTorn = record.bTorn || bTorn;
    return record;
}

Record RecordParser::Describe(const Item& item, std::size_t nEnd) const {
    Record record;
    record.kind = item.core.kind;
    record.nOffset = m_nOffset + item.nBegin;
    record.cbSize = nEnd - item.nBegin;
    if (item.core.kind == Kind::kFragment) {
        record.bTorn = true;
        record.message = WithoutLineEnds(View(item.nBegin, nEnd));
        return record;
    }
    record.nProcess = item.core.nProcess;
    record.nThread = item.core.nThread;
    record.time = item.core.time;
    const std::size_t nCore = item.nBegin + item.cbType;
    record.timeText = View(nCore + item.core.nTimeBegin, nCore + item.core.nTimeEnd);
    record.type = BareType(View(item.nBegin, nCore));
    const std::string_view rest = WithoutLineEnds(View(nCore + item.core.cbCore, nEnd));
    if (item.core.kind == Kind::kMinimal) {
        CompleteMinimal(rest, record);
    } else {
        record.bTorn = !CompleteRecord(rest, item.core.cbCore, record);
    }
    return record;
}

// rest begins with the opening bracket of the source field. False: a part is missing.
bool RecordParser::CompleteRecord(std::string_view rest, std::size_t cbCore, Record& record) const {
    if (rest.empty()) {
        return false;  // the bracket was the first one of another record
    }
    const std::size_t cCharacters = kHeaderCharacters - cbCore;
    const std::size_t nHeaderEnd = rest.find(kHeaderEnd);
    // Usually the number of bytes decides, and the characters need not be counted.
    const bool bShort = nHeaderEnd != std::string_view::npos && nHeaderEnd + kHeaderEnd.size() <= cCharacters;
    const std::size_t cbLongest = bShort ? cCharacters : LengthOfCharacters(rest, cCharacters);
    if (nHeaderEnd != std::string_view::npos && nHeaderEnd + kHeaderEnd.size() <= cbLongest) {
        ParseSource(rest.substr(1, nHeaderEnd - 1), record);
        record.message = rest.substr(nHeaderEnd + kHeaderEnd.size());
        return true;
    }
    ParseSource(rest.substr(1, cbLongest - 1), record);
    record.message = rest.substr(cbLongest);
    return !record.message.empty();
}

// rest is "[INFO]message", or empty if the message could not be encoded.
void RecordParser::CompleteMinimal(std::string_view rest, Record& record) const {
    const std::size_t nClose = rest.find(']');
    if (rest.starts_with('[') && nClose == 5 && IsTypeWord(rest.substr(1, nClose - 1))) {
        record.type = rest.substr(1, nClose - 1);
        record.message = rest.substr(nClose + 1);
    } else {
        record.message = rest;
        record.bTorn = true;
    }
}

void RecordParser::Decode(Record& record) {
    record.rawMessage = record.message;
    if (MayBeGarbled(record.message) && DecodeGarbled(record.message, m_strDecoded)) {
        record.message = m_strDecoded;
    }
}

void RecordParser::HandOver(Record& record) {
    Decode(record);
    if (!m_held.empty() && m_cbHeld + record.cbSize <= m_cbLongest) {
        m_held.emplace_back(record);
        m_cbHeld += record.cbSize;
        return;
    }
    HandOverHeld(false);
    m_sink.OnRecord(record);
}

// bEnded: the end of the first one has been found.
void RecordParser::HandOverHeld(bool bEnded) {
    if (m_held.empty()) {
        return;
    }
    if (bEnded && m_bHeldIsWhole) {
        m_held.front().SetTorn(false);
    }
    // HandOver must not hold these again.
    for (const OwnedRecord& held : std::exchange(m_held, {})) {
        m_sink.OnRecord(held.View());
    }
}

// An entry without text is two empty lines. A cut removes the last line of the file, and a message may end with a line
// end, so a single empty line is no entry.
void RecordParser::HandOverEmpty() {
    Record record;
    record.kind = Kind::kEmpty;
    record.nOffset = m_nEmptyOffset;
    record.cEmpty = m_cEmptyLines / 2;
    m_cEmptyLines = 0;
    if (record.cEmpty > 0) {
        record.cbSize = m_nEmptyEnd - m_nEmptyOffset;
        m_sink.OnRecord(record);
    }
}

}  // namespace vexlog
