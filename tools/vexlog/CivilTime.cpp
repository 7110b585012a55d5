#include "CivilTime.h"

#include <sys/time.h>

#include <charconv>
#include <cstdio>
#include <ctime>

namespace vexlog {
namespace {

constexpr std::int64_t kSecondsPerDay = 86'400;
constexpr CivilMicroseconds kMicrosecondsPerDay = kSecondsPerDay * kMicrosecondsPerSecond;

// The proleptic Gregorian calendar, counted in eras of 400 years that begin on 1 March.
std::int64_t DaysFromCivil(int nYear, int nMonth, int nDay) {
    const std::int64_t nFromMarch = nMonth <= 2 ? nYear - 1 : nYear;
    const std::int64_t nEra = (nFromMarch >= 0 ? nFromMarch : nFromMarch - 399) / 400;
    const std::int64_t nYearOfEra = nFromMarch - nEra * 400;
    const std::int64_t nDayOfYear = (153 * (nMonth + (nMonth > 2 ? -3 : 9)) + 2) / 5 + nDay - 1;
    return nEra * 146'097 + nYearOfEra * 365 + nYearOfEra / 4 - nYearOfEra / 100 + nDayOfYear - 719'468;
}

void CivilFromDays(std::int64_t nDays, CivilFields& fields) {
    nDays += 719'468;
    const std::int64_t nEra = (nDays >= 0 ? nDays : nDays - 146'096) / 146'097;
    const std::int64_t nDayOfEra = nDays - nEra * 146'097;
    const std::int64_t nYearOfEra = (nDayOfEra - nDayOfEra / 1460 + nDayOfEra / 36'524 - nDayOfEra / 146'096) / 365;
    const std::int64_t nDayOfYear = nDayOfEra - (365 * nYearOfEra + nYearOfEra / 4 - nYearOfEra / 100);
    const std::int64_t nMonth = (5 * nDayOfYear + 2) / 153;
    fields.nDay = static_cast<int>(nDayOfYear - (153 * nMonth + 2) / 5 + 1);
    fields.nMonth = static_cast<int>(nMonth < 10 ? nMonth + 3 : nMonth - 9);
    fields.nYear = static_cast<int>(nYearOfEra + nEra * 400 + (fields.nMonth <= 2 ? 1 : 0));
}

CivilMicroseconds FromSystem(std::time_t time, std::int64_t nMicrosecond) {
    std::tm local = {};
    if (localtime_r(&time, &local) == nullptr) {
        return 0;
    }
    return DaysFromCivil(local.tm_year + 1900, local.tm_mon + 1, local.tm_mday) * kMicrosecondsPerDay +
           (local.tm_hour * 3600 + local.tm_min * 60 + local.tm_sec) * kMicrosecondsPerSecond + nMicrosecond;
}

// Reads a text from its front.
class Scanner {
public:
    explicit Scanner(std::string_view text) : m_rest(text) {}

    bool AtEnd() const { return m_rest.empty(); }

    bool Skip(char ch) {
        const bool bFound = m_rest.starts_with(ch);
        m_rest.remove_prefix(bFound ? 1 : 0);
        return bFound;
    }

    // Exactly nDigits digits.
    bool Number(std::size_t nDigits, int& nResult) {
        if (m_rest.size() < nDigits || m_rest.front() == '-') {
            return false;
        }
        const char* const pchEnd = m_rest.data() + nDigits;
        const auto [pchParsed, error] = std::from_chars(m_rest.data(), pchEnd, nResult);
        if (error != std::errc() || pchParsed != pchEnd) {
            return false;
        }
        m_rest.remove_prefix(nDigits);
        return true;
    }

    // One to six digits behind a decimal point, in microseconds.
    bool Fraction(int& nMicrosecond) {
        int nScale = 1'000'000;
        nMicrosecond = 0;
        while (nScale > 1 && !m_rest.empty() && m_rest.front() >= '0' && m_rest.front() <= '9') {
            nScale /= 10;
            nMicrosecond += (m_rest.front() - '0') * nScale;
            m_rest.remove_prefix(1);
        }
        return nScale < 1'000'000;
    }

private:
    std::string_view m_rest;
};

bool ParseDate(Scanner& scanner, CivilFields& fields) {
    return scanner.Number(4, fields.nYear) && scanner.Skip('-') && scanner.Number(2, fields.nMonth) &&
           scanner.Skip('-') && scanner.Number(2, fields.nDay);
}

bool ParseTimeOfDay(Scanner& scanner, CivilFields& fields) {
    if (!scanner.Number(2, fields.nHour) || !scanner.Skip(':') || !scanner.Number(2, fields.nMinute)) {
        return false;
    }
    if (scanner.Skip(':') && !scanner.Number(2, fields.nSecond)) {
        return false;
    }
    return !scanner.Skip('.') || scanner.Fraction(fields.nMicrosecond);
}

std::optional<CivilMicroseconds> ParseAbsolute(std::string_view text, CivilMicroseconds now) {
    CivilFields fields;
    Scanner scanner(text);
    if (text.find('-') != std::string_view::npos) {
        if (!ParseDate(scanner, fields)) {
            return std::nullopt;
        }
        if (!scanner.AtEnd() && !((scanner.Skip('T') || scanner.Skip(' ')) && ParseTimeOfDay(scanner, fields))) {
            return std::nullopt;
        }
    } else {
        fields = FromCivil(now);
        fields.nSecond = fields.nMicrosecond = 0;
        if (!ParseTimeOfDay(scanner, fields)) {
            return std::nullopt;
        }
    }
    return scanner.AtEnd() ? ToCivil(fields) : std::nullopt;
}

std::int64_t SecondsOfUnit(std::string_view unit) {
    return unit == "s" ? 1 : unit == "m" ? 60 : unit == "h" ? 3600 : unit == "d" ? 86'400 : unit == "w" ? 604'800 : 0;
}

std::optional<CivilMicroseconds> ParseRelative(std::string_view text, CivilMicroseconds now) {
    constexpr int kMost = 1'000'000;
    int nCount = 0;
    const auto [pchEnd, error] = std::from_chars(text.data(), text.data() + text.size(), nCount);
    if (error != std::errc() || nCount < 0 || nCount > kMost) {
        return std::nullopt;
    }
    const std::int64_t nUnit = SecondsOfUnit(text.substr(static_cast<std::size_t>(pchEnd - text.data())));
    if (nUnit == 0) {
        return std::nullopt;
    }
    return now - nCount * nUnit * kMicrosecondsPerSecond;
}

}  // namespace

std::optional<CivilMicroseconds> ToCivil(const CivilFields& fields) {
    const auto isIn = [](int n, int nLeast, int nMost) { return n >= nLeast && n <= nMost; };
    if (!isIn(fields.nMonth, 1, 12) || !isIn(fields.nDay, 1, 31) || !isIn(fields.nHour, 0, 23) ||
        !isIn(fields.nMinute, 0, 59) || !isIn(fields.nSecond, 0, 60) || !isIn(fields.nMicrosecond, 0, 999'999)) {
        return std::nullopt;
    }
    return DaysFromCivil(fields.nYear, fields.nMonth, fields.nDay) * kMicrosecondsPerDay +
           (fields.nHour * 3600 + fields.nMinute * 60 + fields.nSecond) * kMicrosecondsPerSecond + fields.nMicrosecond;
}

CivilFields FromCivil(CivilMicroseconds time) {
    std::int64_t nDays = time / kMicrosecondsPerDay;
    std::int64_t nRest = time % kMicrosecondsPerDay;
    if (nRest < 0) {
        nRest += kMicrosecondsPerDay;
        --nDays;
    }
    CivilFields fields;
    CivilFromDays(nDays, fields);
    const auto nSeconds = static_cast<int>(nRest / kMicrosecondsPerSecond);
    fields.nHour = nSeconds / 3600;
    fields.nMinute = nSeconds / 60 % 60;
    fields.nSecond = nSeconds % 60;
    fields.nMicrosecond = static_cast<int>(nRest % kMicrosecondsPerSecond);
    return fields;
}

std::string FormatCivil(CivilMicroseconds time, char chBetween) {
    const CivilFields fields = FromCivil(time);
    char szText[64] = {};
    static_cast<void>(std::snprintf(szText, sizeof szText, "%04d-%02d-%02d%c%02d:%02d:%02d.%06d", fields.nYear,
                                    fields.nMonth, fields.nDay, chBetween, fields.nHour, fields.nMinute, fields.nSecond,
                                    fields.nMicrosecond));
    return szText;
}

std::optional<CivilMicroseconds> ParseUserTime(std::string_view text, CivilMicroseconds now) {
    const auto absolute = ParseAbsolute(text, now);
    return absolute ? absolute : ParseRelative(text, now);
}

CivilMicroseconds CivilNow() {
    timeval time = {};
    gettimeofday(&time, nullptr);
    return FromSystem(time.tv_sec, time.tv_usec);
}

}  // namespace vexlog
