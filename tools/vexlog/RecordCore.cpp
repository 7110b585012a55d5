#include "RecordCore.h"

#include <algorithm>
#include <array>
#include <charconv>

#include "Characters.h"

namespace vexlog {
namespace {

constexpr std::size_t kLongestNumber = 20;
constexpr std::size_t kLongestTimeText = 31;  // the names of the month and of the time zone

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

    // Leading zeros count: at most kLongestNumber characters.
    template <typename Integer>
    bool TakeNumber(Integer& nResult) {
        const std::string_view digits = m_text.substr(m_nAt, kLongestNumber);
        const auto [pchEnd, error] = std::from_chars(digits.data(), digits.data() + digits.size(), nResult);
        m_nAt += error == std::errc() ? static_cast<std::size_t>(pchEnd - digits.data()) : 0;
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

// 0: not an English name.
int MonthNumber(std::string_view name) {
    constexpr std::array<std::string_view, 12> kNames = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                         "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const auto found = std::find(kNames.begin(), kNames.end(), name);
    return found == kNames.end() ? 0 : static_cast<int>(found - kNames.begin()) + 1;
}

// "[P4711] [T-1234567] [2024-03-05 09:07:02:48213] ["
bool ParseRecordCore(std::string_view text, RecordCore& core) {
    Cursor cursor(text);
    CivilFields fields;
    if (!cursor.Take("[P") || !cursor.TakeNumber(core.nProcess) || !cursor.Take("] [T") ||
        !cursor.TakeNumber(core.nThread) || !cursor.Take("] [")) {
        return false;
    }
    core.nTimeBegin = cursor.Position();
    // The last field has microseconds, padded to three digits.
    if (!cursor.TakeDigits(4, 4, fields.nYear) || !cursor.Take("-") || !cursor.TakeDigits(2, 2, fields.nMonth) ||
        !cursor.Take("-") || !cursor.TakeDigits(2, 2, fields.nDay) || !cursor.Take(" ") ||
        !cursor.TakeDigits(2, 2, fields.nHour) || !cursor.Take(":") || !cursor.TakeDigits(2, 2, fields.nMinute) ||
        !cursor.Take(":") || !cursor.TakeDigits(2, 2, fields.nSecond) || !cursor.Take(":") ||
        !cursor.TakeDigits(3, 6, fields.nMicrosecond)) {
        return false;
    }
    core.nTimeEnd = cursor.Position();
    core.time = ToCivil(fields);
    core.kind = Kind::kRecord;
    const bool bComplete = core.time && cursor.Take("] [");
    core.cbCore = cursor.Position() - 1;  // the bracket belongs to the next field
    return bComplete;
}

// "[05/Mar/2024:09:07:02 CET] [4711 3058476800d]"
bool ParseMinimalCore(std::string_view text, RecordCore& core) {
    Cursor cursor(text);
    CivilFields fields;
    std::string_view month;
    std::string_view zone;
    std::uint32_t nThread = 0;
    cursor.Take("[");
    core.nTimeBegin = cursor.Position();
    if (!cursor.TakeDigits(2, 2, fields.nDay) || !cursor.Take("/") || !cursor.TakeUntil('/', kLongestTimeText, month) ||
        !cursor.Take("/") || !cursor.TakeDigits(4, 5, fields.nYear) || !cursor.Take(":") ||
        !cursor.TakeDigits(2, 2, fields.nHour) || !cursor.Take(":") || !cursor.TakeDigits(2, 2, fields.nMinute) ||
        !cursor.Take(":") || !cursor.TakeDigits(2, 2, fields.nSecond) ||
        !cursor.TakeUntil(']', kLongestTimeText, zone)) {
        return false;
    }
    core.nTimeEnd = cursor.Position();
    if (!cursor.Take("] [") || !cursor.TakeNumber(core.nProcess) || !cursor.Take(" ") || !cursor.TakeNumber(nThread) ||
        !cursor.Take("d]")) {
        return false;
    }
    fields.nMonth = MonthNumber(month);
    core.time = ToCivil(fields);
    core.nThread = static_cast<std::int32_t>(nThread);
    core.cbCore = cursor.Position();
    core.kind = Kind::kMinimal;
    return true;
}

}  // namespace

bool ParseCore(std::string_view text, RecordCore& core) {
    const std::string_view longest = text.substr(0, kLongestCore);
    const char chSecond = longest.size() > 1 ? longest[1] : '\0';
    return (chSecond == 'P' && ParseRecordCore(longest, core)) ||
           (IsDigit(chSecond) && ParseMinimalCore(longest, core));
}

}  // namespace vexlog
