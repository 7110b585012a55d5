// Finds the times of wrong clocks in one or several logs.
#pragma once

#include <map>
#include <string>
#include <string_view>

#include "ClockCheck.h"

namespace vexlog {

// Judges each log by itself: in the order of several logs, one log's wrong clock can hold up its right records until
// the other logs have ended. All records of a log count as evidence; the periods are those of the selected ones.
class LogClocks {
public:
    LogClocks() = default;
    LogClocks(const LogClocks&) = delete;
    LogClocks& operator=(const LogClocks&) = delete;

    // The log's name; the time of a record, in the order of that log. bSelected: the periods are to contain it.
    void Add(std::string_view log, CivilMicroseconds time, bool bSelected);

    // A period is wrong if each log that has times in it finds them wrong.
    Periods Judge(CivilMicroseconds now) const;

private:
    ClockCheck& CheckOf(std::string_view log);

    std::map<std::string, ClockCheck, std::less<>> m_checks;
    const std::string* m_pstrLast = nullptr;  // the last log and its check
    ClockCheck* m_pLast = nullptr;
    ClockCheck m_selected;
};

}  // namespace vexlog
