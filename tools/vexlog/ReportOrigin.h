// What a report's page says about itself: which log, made where and when.
#pragma once

#include <ctime>
#include <string>

#include "CivilTime.h"

namespace vexlog {

struct ReportOrigin {
    std::string strSource;       // the log's name
    std::string strHost;         // the page was made here
    std::string strZone;         // of the host
    CivilMicroseconds made = 0;  // in that zone
};

// A page that is made now on this host.
ReportOrigin OriginHere(const std::string& strSource);

// "UTC+01:00 (CET)": the local zone at that time.
std::string ZoneText(std::time_t time);

}  // namespace vexlog
