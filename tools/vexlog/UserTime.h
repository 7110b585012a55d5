// Points in time as a user writes them: those of systemd.time(7), which journalctl takes too, and a few shorter ones.
//
//   2024-03-05, 2024-03-05 09:07, 2024-03-05 09:07:02.5   local time; T may stand for the blank, and one digit for two
//   09:07, 09:07:02                                       today
//   now, today, yesterday, tomorrow                       the last three mean 00:00
//   1 hour ago, -1h, +5min, -1h 30min, 2 days ago         before or after now
//   30s, 10m, 2h, 3d, 1w, 1h30min                         before now; systemd.time(7) does not have these
//   @1709626022                                           seconds since 1970-01-01 UTC
//
// A weekday may stand before a date and must be right. "UTC" may stand behind a date, a time of day or a day's word, as
// may the name of the local zone ("CET"). A month is 30.44 days and a year 365.25 days, as in systemd.time(7).
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "CivilTime.h"

namespace vexlog {

struct UserTime {
    std::optional<CivilMicroseconds> time;
    // If there is no time: why, such as "February 2023 has 28 days". Empty: the text has none of these forms.
    std::string strFault;
};

// Whether records are wanted from the time on, or up to it.
enum class TimeUse { kFrom, kUpTo };

// now: for texts relative to it. use: in the hour that a clock is set back by, one local time means two moments. If the
// text means one moment, the result then is the beginning or the end of that hour, so that no record is left out.
UserTime ParseUserTime(std::string_view text, SystemMicroseconds now, TimeUse use = TimeUse::kFrom);

}  // namespace vexlog
