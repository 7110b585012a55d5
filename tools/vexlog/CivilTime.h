// Local time as in the log: a date and a time of day without a zone. Differences are wrong if the clock was changed in
// between.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace vexlog {

// Microseconds since 1970-01-01 00:00:00 on the local calendar.
using CivilMicroseconds = std::int64_t;

constexpr CivilMicroseconds kMicrosecondsPerSecond = 1'000'000;

// The microseconds of its second.
constexpr int MicrosecondOf(CivilMicroseconds time) {
    const CivilMicroseconds nRest = time % kMicrosecondsPerSecond;
    return static_cast<int>(nRest < 0 ? nRest + kMicrosecondsPerSecond : nRest);
}

struct CivilFields {
    int nYear = 1970;
    int nMonth = 1;
    int nDay = 1;
    int nHour = 0;
    int nMinute = 0;
    int nSecond = 0;
    int nMicrosecond = 0;
};

// nMonth: 1 to 12.
int DaysInMonth(int nYear, int nMonth);

// 0 is Sunday.
int Weekday(CivilMicroseconds time);

// Nothing if there is no such day or time of day. Every minute may have a leap second.
std::optional<CivilMicroseconds> ToCivil(const CivilFields& fields);
CivilFields FromCivil(CivilMicroseconds time);

// "2024-03-05T09:07:02.048213", with chBetween in place of the T.
std::string FormatCivil(CivilMicroseconds time, char chBetween = 'T');
// The same without the microseconds.
std::string FormatCivilSeconds(CivilMicroseconds time, char chBetween = 'T');

// Microseconds since 1970-01-01 00:00:00 UTC, as the system counts.
using SystemMicroseconds = std::int64_t;

// The local time at that moment. Nothing beyond the years that the C library can tell.
std::optional<CivilMicroseconds> CivilOfSystem(SystemMicroseconds time);

SystemMicroseconds SystemNow();

}  // namespace vexlog
