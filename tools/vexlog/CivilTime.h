// Local time as in the log: a date and a time of day without a zone. Differences are wrong if the clock was changed in
// between.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

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

// Nothing if a field is out of its range. Every month may have 31 days, and every minute may have a leap second.
std::optional<CivilMicroseconds> ToCivil(const CivilFields& fields);
CivilFields FromCivil(CivilMicroseconds time);

// "2024-03-05T09:07:02.048213", with chBetween in place of the T.
std::string FormatCivil(CivilMicroseconds time, char chBetween = 'T');

// A point in time as a user writes it: "2024-03-05", "2024-03-05T09:07", "2024-03-05 09:07:02.5", "09:07:02" (today),
// or a time before now: "30s", "10m", "2h", "3d", "1w". Nothing for any other text.
std::optional<CivilMicroseconds> ParseUserTime(std::string_view text, CivilMicroseconds now);

// The local time now.
CivilMicroseconds CivilNow();

}  // namespace vexlog
