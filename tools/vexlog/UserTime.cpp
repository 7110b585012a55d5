#include "UserTime.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <ctime>

#include "Characters.h"

namespace vexlog {
namespace {

constexpr std::string_view kNoTime;  // the text has none of the forms
constexpr std::string_view kTooFar = "too far from now";
constexpr std::int64_t kMicrosecondsPerDay = 86'400 * kMicrosecondsPerSecond;

UserTime Fault(std::string_view fault) {
    return {std::nullopt, std::string(fault)};
}

// The local time from which on, or up to which, a log has every record of the moments from this one on, or up to it.
// Where a clock is set back, later records have earlier times, and those must not be left out.
UserTime OfSystem(SystemMicroseconds time, TimeUse use) {
    constexpr SystemMicroseconds kMinute = 60 * kMicrosecondsPerSecond;
    constexpr int kMinutes = 180;  // clocks are set back by two hours at most, at the beginning of a minute
    std::optional<CivilMicroseconds> civil = CivilOfSystem(time);
    if (!civil) {
        return Fault(kTooFar);
    }
    const SystemMicroseconds nBegin = time - (time % kMinute + kMinute) % kMinute;
    for (int nMinute = 0; nMinute < kMinutes; ++nMinute) {
        if (use == TimeUse::kFrom) {
            civil = std::min(*civil, CivilOfSystem(nBegin + (nMinute + 1) * kMinute).value_or(*civil));
        } else {
            civil = std::max(*civil, CivilOfSystem(nBegin - nMinute * kMinute - 1).value_or(*civil));
        }
    }
    return {civil, ""};
}

char Lower(char ch) {
    return ch >= 'A' && ch <= 'Z' ? static_cast<char>(ch + ('a' - 'A')) : ch;
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

    bool SkipBlanks() {
        bool bFound = false;
        while (Skip(' ')) {
            bFound = true;
        }
        return bFound;
    }

    // nLeast to nMost digits.
    bool Number(std::size_t nLeast, std::size_t nMost, int& nResult) {
        const std::string_view digits = m_rest.substr(0, std::min(m_rest.find_first_not_of("0123456789"), nMost));
        if (digits.size() < nLeast) {
            return false;
        }
        std::from_chars(digits.data(), digits.data() + digits.size(), nResult);
        m_rest.remove_prefix(digits.size());
        return true;
    }

    // One to six digits behind a decimal point, in microseconds.
    bool Fraction(int& nMicrosecond) {
        int nScale = 1'000'000;
        nMicrosecond = 0;
        while (nScale > 1 && !m_rest.empty() && IsDigit(m_rest.front())) {
            nScale /= 10;
            nMicrosecond += (m_rest.front() - '0') * nScale;
            m_rest.remove_prefix(1);
        }
        return nScale < 1'000'000;
    }

    // Digits, with a decimal point or without.
    bool Decimal(double& dResult) {
        if (m_rest.empty() || !IsDigit(m_rest.front())) {
            return false;
        }
        const auto [pchEnd, error] =
            std::from_chars(m_rest.data(), m_rest.data() + m_rest.size(), dResult, std::chars_format::fixed);
        m_rest.remove_prefix(static_cast<std::size_t>(pchEnd - m_rest.data()));
        return error == std::errc();
    }

    std::string_view Word() {
        std::size_t cb = 0;
        while (cb < m_rest.size() && (IsLetter(m_rest[cb]) || static_cast<unsigned char>(m_rest[cb]) >= 0x80)) {
            ++cb;
        }
        const std::string_view word = m_rest.substr(0, cb);
        m_rest.remove_prefix(cb);
        return word;
    }

    std::string_view Rest() const { return m_rest; }

private:
    std::string_view m_rest;
};

bool EqualsAnyCase(std::string_view left, std::string_view right) {
    if (left.size() != right.size()) {
        return false;
    }
    for (std::size_t i = 0; i < left.size(); ++i) {
        if (Lower(left[i]) != Lower(right[i])) {
            return false;
        }
    }
    return true;
}

// ---- Points in time ----

constexpr std::array<std::string_view, 7> kWeekdays = {"Sunday",   "Monday", "Tuesday", "Wednesday",
                                                       "Thursday", "Friday", "Saturday"};
constexpr std::array<std::string_view, 12> kMonths = {"January",   "February", "March",    "April",
                                                      "May",       "June",     "July",     "August",
                                                      "September", "October",  "November", "December"};

// Nothing: the word is no weekday.
std::optional<int> WeekdayOf(std::string_view word) {
    for (std::size_t nDay = 0; nDay < kWeekdays.size(); ++nDay) {
        if (EqualsAnyCase(word, kWeekdays[nDay]) || EqualsAnyCase(word, kWeekdays[nDay].substr(0, 3))) {
            return static_cast<int>(nDay);
        }
    }
    return std::nullopt;
}

// The days from today: 0 for "today".
std::optional<int> DayOfWord(std::string_view word) {
    return word == "today"       ? std::optional(0)
           : word == "yesterday" ? std::optional(-1)
           : word == "tomorrow"  ? std::optional(1)
                                 : std::nullopt;
}

bool ParseDate(Scanner& scanner, CivilFields& fields) {
    return scanner.Number(4, 4, fields.nYear) && scanner.Skip('-') && scanner.Number(1, 2, fields.nMonth) &&
           scanner.Skip('-') && scanner.Number(1, 2, fields.nDay);
}

bool ParseTimeOfDay(Scanner& scanner, CivilFields& fields) {
    fields.nSecond = fields.nMicrosecond = 0;
    if (!scanner.Number(1, 2, fields.nHour) || !scanner.Skip(':') || !scanner.Number(1, 2, fields.nMinute)) {
        return false;
    }
    if (scanner.Skip(':') && !scanner.Number(1, 2, fields.nSecond)) {
        return false;
    }
    return !scanner.Skip('.') || scanner.Fraction(fields.nMicrosecond);
}

// UTC, or the local zone by its name. Nothing: another zone.
std::optional<bool> IsUtc(std::string_view zone) {
    if (zone == "UTC" || zone == "Z") {
        return true;
    }
    tzset();
    return zone.empty() || zone == tzname[0] || zone == tzname[1] ? std::optional(false) : std::nullopt;
}

// Where the zone begins, at the latest at the text's end. Its name is a word ("CET") or, behind a blank, a number
// ("-03").
std::size_t ZoneIn(std::string_view text) {
    const std::size_t nNumber = text.find_last_not_of("0123456789");
    if (nNumber != std::string_view::npos && nNumber > 0 && nNumber + 1 < text.size() && text[nNumber - 1] == ' ' &&
        (text[nNumber] == '+' || text[nNumber] == '-')) {
        return nNumber;
    }
    return text.find_last_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ") + 1;
}

std::string WhyNoSuchTime(const CivilFields& fields) {
    if (fields.nMonth < 1 || fields.nMonth > 12) {
        return "a year has 12 months";
    }
    const int cDays = DaysInMonth(fields.nYear, fields.nMonth);
    if (fields.nDay < 1 || fields.nDay > cDays) {
        return std::string(kMonths[static_cast<std::size_t>(fields.nMonth - 1)]) + " " + std::to_string(fields.nYear) +
               " has " + std::to_string(cDays) + " days";
    }
    return "there is no such time of day";
}

// A date, a time of day, both, or a day's word; with a weekday before it and a zone behind it.
UserTime ParsePoint(std::string_view text, SystemMicroseconds now, TimeUse use) {
    const std::size_t nZone = ZoneIn(text);
    const std::optional<bool> bUtc = IsUtc(text.substr(nZone));
    if (!bUtc) {
        return Fault("the zone must be UTC or the local one");
    }
    text = text.substr(0, nZone);
    text.remove_suffix(text.size() - (text.find_last_not_of(' ') + 1));
    // The clock in UTC is the system's.
    const std::optional<CivilMicroseconds> today = *bUtc ? now : CivilOfSystem(now);
    if (!today) {
        return Fault(kTooFar);
    }
    CivilFields fields = FromCivil(*today);
    fields.nHour = fields.nMinute = fields.nSecond = fields.nMicrosecond = 0;

    Scanner scanner(text);
    std::optional<int> weekday;
    std::optional<CivilMicroseconds> time;
    if (const std::optional<int> day = DayOfWord(text)) {
        time = ToCivil(fields).value() + *day * kMicrosecondsPerDay;
    } else {
        if (!text.empty() && IsLetter(text.front())) {
            weekday = WeekdayOf(scanner.Word());
            if (!weekday || !scanner.SkipBlanks()) {
                return Fault(kNoTime);
            }
        }
        if (scanner.Rest().find('-') != std::string_view::npos) {
            if (!ParseDate(scanner, fields) || (!scanner.AtEnd() && !((scanner.Skip('T') || scanner.SkipBlanks()) &&
                                                                      ParseTimeOfDay(scanner, fields)))) {
                return Fault(kNoTime);
            }
        } else if (!ParseTimeOfDay(scanner, fields)) {
            return Fault(kNoTime);
        }
        if (!scanner.AtEnd()) {
            return Fault(kNoTime);
        }
        time = ToCivil(fields);
        if (!time) {
            return Fault(WhyNoSuchTime(fields));
        }
    }
    // A leap second counts as the beginning of the next minute, which may be another day's.
    fields.nHour = fields.nMinute = fields.nSecond = 0;
    if (const int nDay = Weekday(ToCivil(fields).value()); weekday && *weekday != nDay) {
        return Fault("this day is a " + std::string(kWeekdays[static_cast<std::size_t>(nDay)]));
    }
    return *bUtc ? OfSystem(*time, use) : UserTime{time, ""};
}

// ---- Spans ----

struct Unit {
    std::string_view name;
    double dSeconds;
};

constexpr Unit kUnits[] = {
    {"s", 1},
    {"sec", 1},
    {"second", 1},
    {"seconds", 1},
    {"m", 60},
    {"min", 60},
    {"minute", 60},
    {"minutes", 60},
    {"h", 3600},
    {"hr", 3600},
    {"hour", 3600},
    {"hours", 3600},
    {"d", 86'400},
    {"day", 86'400},
    {"days", 86'400},
    {"w", 604'800},
    {"week", 604'800},
    {"weeks", 604'800},
    {"M", 2'629'800},
    {"month", 2'629'800},
    {"months", 2'629'800},
    {"y", 31'557'600},
    {"year", 31'557'600},
    {"years", 31'557'600},
    {"ms", 1e-3},
    {"msec", 1e-3},
    {"us", 1e-6},
    {"usec", 1e-6},
    {"\xC2\xB5s", 1e-6},
    {"\xCE\xBCs", 1e-6},
};

std::optional<double> SecondsOfUnit(std::string_view name) {
    for (const Unit& unit : kUnits) {
        if (unit.name == name) {
            return unit.dSeconds;
        }
    }
    return std::nullopt;
}

// "1h 30min". A number without a unit means seconds, if bUnitMayMiss. Nothing: no span, or longer than a log can be
// old.
std::optional<std::int64_t> ParseSpan(std::string_view text, bool bUnitMayMiss) {
    constexpr double kMostSeconds = 1e10;
    Scanner scanner(text);
    double dTotal = 0;
    scanner.SkipBlanks();
    do {
        double dNumber = 0;
        if (!scanner.Decimal(dNumber)) {
            return std::nullopt;
        }
        scanner.SkipBlanks();
        const std::string_view name = scanner.Word();
        const std::optional<double> unit = name.empty() && bUnitMayMiss ? 1.0 : SecondsOfUnit(name);
        if (!unit) {
            return std::nullopt;
        }
        dTotal += dNumber * *unit;
        scanner.SkipBlanks();
    } while (!scanner.AtEnd());
    if (!(dTotal <= kMostSeconds)) {
        return std::nullopt;
    }
    return std::llround(dTotal * 1e6);
}

UserTime ParseRelative(std::string_view text, SystemMicroseconds now, TimeUse use) {
    constexpr std::string_view kAgo = " ago";
    std::optional<std::int64_t> span;
    int nSign = -1;
    if (text.starts_with('-') || text.starts_with('+')) {
        nSign = text.front() == '-' ? -1 : 1;
        span = ParseSpan(text.substr(1), true);
    } else if (text.ends_with(kAgo)) {
        span = ParseSpan(text.substr(0, text.size() - kAgo.size()), true);
    } else {
        span = ParseSpan(text, false);
    }
    return span ? OfSystem(now + nSign * *span, use) : Fault(kNoTime);
}

}  // namespace

UserTime ParseUserTime(std::string_view text, SystemMicroseconds now, TimeUse use) {
    if (text == "now") {
        return OfSystem(now, use);
    }
    if (text.starts_with('@')) {
        const std::optional<std::int64_t> span = text.find_first_not_of("0123456789.", 1) == std::string_view::npos
                                                     ? ParseSpan(text.substr(1), true)
                                                     : std::nullopt;
        return span ? OfSystem(*span, use) : Fault(kNoTime);
    }
    const UserTime relative = ParseRelative(text, now, use);
    return relative.time ? relative : ParsePoint(text, now, use);
}

}  // namespace vexlog
