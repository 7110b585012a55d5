#include "RecordParser.h"

#include <algorithm>
#include <charconv>

#include "GarbledName.h"
#include "posix/Utf8Character.h"

namespace vexlog {
namespace {

constexpr std::string_view kByteOrderMark = "\xFF\xFE";
constexpr std::string_view kHeaderEnd = "]: ";
constexpr std::size_t kHeaderCharacters = 259;  // the logger cuts a longer header, which then has no end
constexpr std::size_t kLongestTypeWord = 32;
constexpr std::size_t kLongestType = 64;

bool IsDigit(char ch) {
    return ch >= '0' && ch <= '9';
}

bool IsLetter(char ch) {
    return (ch >= 'A' && ch <= 'Z') || (ch >= 'a' && ch <= 'z');
}

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
    // A dash in a path is followed by more of the path.
    if (nDash != std::string_view::npos && record.file.find_first_of("/\\.", nDash) == std::string_view::npos) {
        record.function = record.file.substr(nDash + 1);
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
    const std::size_t nDone = std::min(m_nItem, m_nLine);
    m_strBuffer.erase(0, nDone);
    m_nOffset += nDone;
    m_nLine -= nDone;
    m_nSearched = std::max(m_nSearched, nDone) - nDone;
    m_nItem -= m_nItem == kNone ? 0 : nDone;
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
    m_nLine = m_nItem == kNone ? nPieceEnd : std::max(nPieceEnd, m_nItem + m_cbType + m_core.cbCore);
    m_bMidLine = true;
    EndIfTooLong();
}

void RecordParser::EndIfTooLong() {
    if (m_nItem != kNone && m_nLine - m_nItem > m_cbLongest) {
        End(m_nLine, true);
        m_bEndExpected = true;
    }
}

void RecordParser::Flush() {
    if (m_nLine == m_strBuffer.size()) {
        if (m_nItem != kNone && !m_bMidLine) {
            End(m_nLine, false);
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
        if (m_nItem != kNone) {
            End(m_nLine, true);
        }
    } else if (m_nItem != kNone) {
        End(m_nLine, m_bMidLine);
    }
    HandOverEmpty();
    m_nOffset += m_strBuffer.size();
    m_strBuffer.clear();
    m_nLine = m_nSearched = 0;
    m_bMidLine = m_bSeenCrLf = m_bLastCrLf = m_bEndExpected = false;
    m_bStart = true;
}

// ---- Lines to items ----

void RecordParser::OnLine(Line line, bool bCrLf) {
    if (line.bFresh && View(line.nBegin, line.nEnd).starts_with(kByteOrderMark)) {
        // Another file begins here.
        End(line.nBegin, false);
        HandOverEmpty();
        line.nBegin += kByteOrderMark.size();
        m_bStart = true;
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
        if (m_nItem == kNone && nBeforeEnd > nFrom) {
            BeginFragment(nFrom);
        }
        // A record that ends at the end of a line is complete.
        End(nBeforeEnd, nBeforeEnd > line.nBegin || !line.bFresh);
        Begin(found);
    }
    if (m_nItem == kNone) {
        BeginFragment(line.nBegin);
    }
}

void RecordParser::OnEmptyLine(std::size_t nBegin, bool bCrLf) {
    if (m_bEndExpected) {
        m_bEndExpected = false;  // it belongs to the record that was handed over before
    } else if (m_nItem == kNone) {
        // A single line feed before CR LF is the rest of a line end that was cut.
        const bool bFirst = m_cEmptyLines == 0 || (bCrLf && !m_bLastCrLf);
        m_cEmptyLines = bFirst ? 1 : m_cEmptyLines + 1;
        m_nEmptyEnd = m_nOffset + m_nLine;
        if (bFirst) {
            m_nEmptyOffset = m_nOffset + nBegin;
        }
    } else if (m_core.kind == Kind::kMinimal && bCrLf && !m_bLastCrLf) {
        // The minimal logger ends its lines with LF alone, so this line belongs to an entry without text.
        End(nBegin, false);
        m_cEmptyLines = 1;
        m_nEmptyOffset = m_nOffset + nBegin;
        m_nEmptyEnd = m_nOffset + m_nLine;
    } else if ((bCrLf && m_bLastCrLf) || (!bCrLf && !m_bSeenCrLf)) {
        End(m_nLine, false);
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
                found.nType = FindType(nFrom, nAt, line.bFresh && nFrom == line.nBegin && m_nItem == kNone);
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
    HandOverEmpty();
    m_bStart = m_bEndExpected = false;
    m_nItem = found.nType;
    m_cbType = found.nCore - found.nType;
    m_core = found.core;
}

void RecordParser::BeginFragment(std::size_t nBegin) {
    Begin({nBegin, nBegin, RecordCore()});
}

void RecordParser::End(std::size_t nEnd, bool bTorn) {
    if (m_nItem == kNone) {
        return;
    }
    Record record;
    record.kind = m_core.kind;
    record.nOffset = m_nOffset + m_nItem;
    record.cbSize = nEnd - m_nItem;
    record.bTorn = bTorn;
    if (m_core.kind == Kind::kFragment) {
        record.bTorn = true;
        record.message = WithoutLineEnds(View(m_nItem, nEnd));
    } else {
        record.nProcess = m_core.nProcess;
        record.nThread = m_core.nThread;
        record.time = m_core.time;
        const std::size_t nCore = m_nItem + m_cbType;
        record.timeText = View(nCore + m_core.nTimeBegin, nCore + m_core.nTimeEnd);
        record.type = BareType(View(m_nItem, nCore));
        const std::string_view rest = WithoutLineEnds(View(nCore + m_core.cbCore, nEnd));
        if (m_core.kind == Kind::kMinimal) {
            CompleteMinimal(rest, record);
        } else {
            record.bTorn = !CompleteRecord(rest, record) || record.bTorn;
        }
    }
    m_nItem = kNone;
    HandOver(record);
}

// rest begins with the opening bracket of the source field. False: a part is missing.
bool RecordParser::CompleteRecord(std::string_view rest, Record& record) const {
    if (rest.empty()) {
        return false;  // the bracket was the first one of another record
    }
    const std::size_t cCharacters = kHeaderCharacters - m_core.cbCore;
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

void RecordParser::HandOver(Record& record) {
    record.rawMessage = record.message;
    if (MayBeGarbled(record.message) && DecodeGarbled(record.message, m_strDecoded)) {
        record.message = m_strDecoded;
    }
    m_sink.OnRecord(record);
}

// An entry without text is two empty lines. A cut removes the last line of the file. An empty line at the beginning of
// a file belongs to what was cut off.
void RecordParser::HandOverEmpty() {
    Record record;
    record.kind = Kind::kEmpty;
    record.nOffset = m_nEmptyOffset;
    record.cEmpty = m_bStart ? m_cEmptyLines / 2 : (m_cEmptyLines + 1) / 2;
    m_cEmptyLines = 0;
    if (record.cEmpty > 0) {
        record.cbSize = m_nEmptyEnd - m_nEmptyOffset;
        m_sink.OnRecord(record);
    }
}

}  // namespace vexlog
