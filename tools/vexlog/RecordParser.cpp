#include "RecordParser.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>

#include "GarbledName.h"
#include "Utf8.h"

namespace vexlog {
namespace {

constexpr std::string_view kByteOrderMark = "\xFF\xFE";
constexpr std::string_view kHeaderEnd = "]: ";
constexpr std::size_t kHeaderCharacters = 259;  // a longer header is cut, and then has no end
constexpr std::size_t kLongestTypeWord = 32;
constexpr std::size_t kLongestType = 64;
constexpr std::size_t kLongestCore = 512;

bool IsDigit(char ch) {
    return ch >= '0' && ch <= '9';
}

bool IsLetter(char ch) {
    return (ch >= 'A' && ch <= 'Z') || (ch >= 'a' && ch <= 'z');
}

// A place in a text. Each Take moves on only when it finds what it looks for.
class Cursor {
public:
    explicit Cursor(std::string_view text) : m_text(text) {}

    std::size_t Position() const { return m_nAt; }

    bool Take(std::string_view literal) {
        if (!m_text.substr(m_nAt).starts_with(literal)) {
            return false;
        }
        m_nAt += literal.size();
        return true;
    }

    template <typename Integer>
    bool TakeNumber(Integer& nResult) {
        const char* const pchBegin = m_text.data() + m_nAt;
        const auto [pchEnd, error] = std::from_chars(pchBegin, m_text.data() + m_text.size(), nResult);
        m_nAt += error == std::errc() ? static_cast<std::size_t>(pchEnd - pchBegin) : 0;
        return error == std::errc();
    }

    // nLeast to nMost digits.
    bool TakeDigits(std::size_t nLeast, std::size_t nMost, int& nResult) {
        std::size_t n = 0;
        int nValue = 0;
        while (n < nMost && m_nAt + n < m_text.size() && IsDigit(m_text[m_nAt + n])) {
            nValue = nValue * 10 + (m_text[m_nAt + n] - '0');
            ++n;
        }
        if (n < nLeast) {
            return false;
        }
        m_nAt += n;
        nResult = nValue;
        return true;
    }

    // The text before the next chEnd, which has at most nMost characters.
    bool TakeUntil(char chEnd, std::size_t nMost, std::string_view& taken) {
        const std::size_t n = m_text.substr(m_nAt, nMost + 1).find(chEnd);
        if (n == std::string_view::npos) {
            return false;
        }
        taken = m_text.substr(m_nAt, n);
        m_nAt += n;
        return true;
    }

private:
    std::string_view m_text;
    std::size_t m_nAt = 0;
};

// 0: not English.
int MonthNumber(std::string_view name) {
    constexpr std::array<std::string_view, 12> kNames = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                         "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const auto found = std::find(kNames.begin(), kNames.end(), name);
    return found == kNames.end() ? 0 : static_cast<int>(found - kNames.begin()) + 1;
}

// "INFO" of "[INFO] ", of others the text without the blanks around it.
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

// The length of the text's first characters in bytes; what is no character counts byte by byte.
std::size_t LengthOfCharacters(std::string_view text, std::size_t cCharacters) {
    std::size_t cb = 0;
    while (cCharacters-- > 0 && cb < text.size()) {
        cb += std::max<std::size_t>(FirstCharacter(text.substr(cb)).cb, 1);
    }
    return cb;
}

// "path-Function(101)" or "path(101)". A text of another form is all path.
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
    if (m_nItem != kNone) {
        m_nItem -= nDone;
        m_core.nCoreBegin -= nDone;
        m_core.nTypeBegin -= nDone;
        m_core.nEnd -= nDone;
        m_core.nTimeBegin -= nDone;
        m_core.nTimeEnd -= nDone;
    }
    m_strBuffer.append(bytes);
    Scan();
}

void RecordParser::Scan() {
    for (;;) {
        m_nSearched = std::max(m_nSearched, m_nLine);
        const std::size_t nLineFeed = m_strBuffer.find('\n', m_nSearched);
        const std::size_t cbLine = std::min(nLineFeed, m_strBuffer.size()) - m_nLine;
        if (cbLine > kLongest) {
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

// Takes the line's first piece for a line of its own.
void RecordParser::ScanOverlongLine() {
    const std::size_t nPieceEnd = m_nLine + kLongest - kLongestCore;
    OnLine({m_nLine, nPieceEnd, !m_bMidLine}, false);
    // The fields of a record that begins near the piece's end are behind it.
    m_nLine = std::max(nPieceEnd, m_core.nEnd);
    m_bMidLine = true;
    EndIfTooLong();
}

void RecordParser::EndIfTooLong() {
    if (m_nItem != kNone && m_nLine - m_nItem > kLongest) {
        End(m_nLine, true);
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
        // A file begins here.
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
    Core core;
    for (std::size_t nFrom = line.nBegin; FindCore(line, nFrom, core); nFrom = core.nEnd) {
        std::size_t nBeforeEnd = core.nTypeBegin;
        if (View(nFrom, nBeforeEnd).ends_with(kByteOrderMark)) {
            nBeforeEnd -= kByteOrderMark.size();
        }
        if (m_nItem == kNone && nBeforeEnd > nFrom) {
            BeginFragment(nFrom);
        }
        // Of a record that ends at its line's end nothing is missing.
        End(nBeforeEnd, nBeforeEnd > line.nBegin || !line.bFresh);
        Begin(core.nTypeBegin, core);
    }
    if (m_nItem == kNone) {
        BeginFragment(line.nBegin);
    }
}

void RecordParser::OnEmptyLine(std::size_t nBegin, bool bCrLf) {
    if (m_bEndExpected) {
        m_bEndExpected = false;  // of the record that was handed over without it
    } else if (m_nItem == kNone) {
        // A line feed before CR LF is what a cut left of one.
        const bool bFirst = m_cEmptyLines == 0 || (bCrLf && !m_bLastCrLf);
        m_cEmptyLines = bFirst ? 1 : m_cEmptyLines + 1;
        m_nEmptyEnd = m_nOffset + m_nLine;
        if (bFirst) {
            m_nEmptyOffset = m_nOffset + nBegin;
        }
    } else if (m_core.kind == Kind::kMinimal && bCrLf && !m_bLastCrLf) {
        // The minimal logger's line end is LF alone: this line belongs to an entry without text.
        End(nBegin, false);
        m_cEmptyLines = 1;
        m_nEmptyOffset = m_nOffset + nBegin;
        m_nEmptyEnd = m_nOffset + m_nLine;
    } else if ((bCrLf && m_bLastCrLf) || (!bCrLf && !m_bSeenCrLf)) {
        End(m_nLine, false);
    }
    // Any other empty line is one of the message's own.
}

bool RecordParser::FindCore(const Line& line, std::size_t nFrom, Core& core) const {
    const char* const pchBuffer = m_strBuffer.data();
    // Of an overlong line, the bytes behind its piece are there too.
    const std::size_t nLimit = std::min(m_strBuffer.size(), line.nEnd + (line.nEnd < m_nLine ? 0 : kLongestCore));
    for (std::size_t nAt = nFrom; nAt + 1 < line.nEnd; ++nAt) {
        const void* const pFound = std::memchr(pchBuffer + nAt, '[', line.nEnd - nAt);
        if (pFound == nullptr) {
            return false;
        }
        nAt = static_cast<std::size_t>(static_cast<const char*>(pFound) - pchBuffer);
        const char chNext = nAt + 1 < nLimit ? pchBuffer[nAt + 1] : '\0';
        if ((chNext == 'P' && ParseRecordCore(nAt, nLimit, core)) ||
            (IsDigit(chNext) && ParseMinimalCore(nAt, nLimit, core))) {
            core.nCoreBegin = core.nTypeBegin = nAt;
            if (core.kind == Kind::kRecord) {
                core.nTypeBegin = FindType(nFrom, nAt, line.bFresh && nFrom == line.nBegin && m_nItem == kNone);
            }
            return true;
        }
    }
    return false;
}

// "[P4711] [T-1234567] [2024-03-05 09:07:02:48213] ["
bool RecordParser::ParseRecordCore(std::size_t nBegin, std::size_t nEnd, Core& core) const {
    Cursor cursor(View(nBegin, nEnd));
    CivilFields fields;
    if (!cursor.Take("[P") || !cursor.TakeNumber(core.nProcess) || !cursor.Take("] [T") ||
        !cursor.TakeNumber(core.nThread) || !cursor.Take("] [")) {
        return false;
    }
    core.nTimeBegin = nBegin + cursor.Position();
    // The last field has microseconds, padded to three digits.
    if (!cursor.TakeDigits(4, 4, fields.nYear) || !cursor.Take("-") || !cursor.TakeDigits(2, 2, fields.nMonth) ||
        !cursor.Take("-") || !cursor.TakeDigits(2, 2, fields.nDay) || !cursor.Take(" ") ||
        !cursor.TakeDigits(2, 2, fields.nHour) || !cursor.Take(":") || !cursor.TakeDigits(2, 2, fields.nMinute) ||
        !cursor.Take(":") || !cursor.TakeDigits(2, 2, fields.nSecond) || !cursor.Take(":") ||
        !cursor.TakeDigits(3, 6, fields.nMicrosecond)) {
        return false;
    }
    core.nTimeEnd = nBegin + cursor.Position();
    core.time = ToCivil(fields);
    core.kind = Kind::kRecord;
    const bool bComplete = core.time && cursor.Take("] [");
    core.nEnd = nBegin + cursor.Position() - 1;  // the bracket is the next field's
    return bComplete;
}

// "[05/Mar/2024:09:07:02 CET] [4711 3058476800d]"
bool RecordParser::ParseMinimalCore(std::size_t nBegin, std::size_t nEnd, Core& core) const {
    constexpr std::size_t kLongestTime = 31;
    Cursor cursor(View(nBegin, nEnd));
    CivilFields fields;
    std::string_view month;
    std::string_view zone;
    std::uint32_t nThread = 0;
    cursor.Take("[");
    core.nTimeBegin = nBegin + cursor.Position();
    if (!cursor.TakeDigits(2, 2, fields.nDay) || !cursor.Take("/") || !cursor.TakeUntil('/', kLongestTime, month) ||
        !cursor.Take("/") || !cursor.TakeDigits(4, 5, fields.nYear) || !cursor.Take(":") ||
        !cursor.TakeDigits(2, 2, fields.nHour) || !cursor.Take(":") || !cursor.TakeDigits(2, 2, fields.nMinute) ||
        !cursor.Take(":") || !cursor.TakeDigits(2, 2, fields.nSecond) || !cursor.TakeUntil(']', kLongestTime, zone)) {
        return false;
    }
    core.nTimeEnd = nBegin + cursor.Position();
    if (!cursor.Take("] [") || !cursor.TakeNumber(core.nProcess) || !cursor.Take(" ") || !cursor.TakeNumber(nThread) ||
        !cursor.Take("d]")) {
        return false;
    }
    fields.nMonth = MonthNumber(month);
    core.time = ToCivil(fields);
    core.nThread = static_cast<std::int32_t>(nThread);
    core.nEnd = nBegin + cursor.Position();
    core.kind = Kind::kMinimal;
    return true;
}

// Where the type text before a record's first bracket begins. Any text may be one; in the middle of other text, or
// behind it, only a word in brackets is taken for one.
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

void RecordParser::Begin(std::size_t nBegin, const Core& core) {
    HandOverEmpty();
    m_bStart = m_bEndExpected = false;
    m_nItem = nBegin;
    m_core = core;
}

void RecordParser::BeginFragment(std::size_t nBegin) {
    Begin(nBegin, Core());
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
        record.timeText = View(m_core.nTimeBegin, m_core.nTimeEnd);
        record.type = BareType(View(m_nItem, m_core.nCoreBegin));
        const std::string_view rest = WithoutLineEnds(View(m_core.nEnd, nEnd));
        if (m_core.kind == Kind::kMinimal) {
            CompleteMinimal(rest, record);
        } else {
            record.bTorn = !CompleteRecord(rest, record) || record.bTorn;
        }
    }
    m_nItem = kNone;
    HandOver(record);
}

// rest begins with the bracket of the field that names the source. False: something is missing.
bool RecordParser::CompleteRecord(std::string_view rest, Record& record) const {
    if (rest.empty()) {
        return false;  // the bracket was another record's first one
    }
    const std::size_t cCharacters = kHeaderCharacters - (m_core.nEnd - m_core.nCoreBegin);
    const std::size_t nHeaderEnd = rest.find(kHeaderEnd);
    // Mostly the number of bytes tells already.
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

// rest is "[INFO]message", or nothing when the message could not be encoded.
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

// An entry without text is two empty lines. A cut takes the last one of the file; one at the beginning of a file ends
// what was cut off.
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
