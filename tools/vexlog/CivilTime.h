// Local time as the log has it: a date and a time of day without a zone. Differences are right except across a change
// of the clock.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vexlog {

// Microseconds since 1970-01-01 00:00:00 on the local calendar.
using CivilMicroseconds = std::int64_t;

constexpr CivilMicroseconds kMicrosecondsPerSecond = 1'000'000;

// The part of it below a second.
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

// Nothing when a field is out of its range (a day up to 31 will do, as will a leap second).
std::optional<CivilMicroseconds> ToCivil(const CivilFields& fields);
CivilFields FromCivil(CivilMicroseconds time);

// "2024-03-05T09:07:02.048213", with the given character in place of the T.
std::string FormatCivil(CivilMicroseconds time, char chBetween = 'T');

// A point in time as a user writes it: "2024-03-05", "2024-03-05T09:07", "2024-03-05 09:07:02.5", "09:07:02" (today),
// or back from now: "30s", "10m", "2h", "3d", "1w". Nothing when it is none of them.
std::optional<CivilMicroseconds> ParseUserTime(std::string_view text, CivilMicroseconds now);

// The local time now.
CivilMicroseconds CivilNow();

}  // namespace vexlog
