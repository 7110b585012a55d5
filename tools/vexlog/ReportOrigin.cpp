#include "ReportOrigin.h"

#include <unistd.h>

#include <array>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace vexlog {
namespace {

std::string HostName() {
    std::array<char, HOST_NAME_MAX + 1> szName = {};
    return gethostname(szName.data(), szName.size() - 1) == 0 ? szName.data() : "unknown host";
}

}  // namespace

ReportOrigin OriginHere(const std::string& strSource) {
    const SystemMicroseconds now = SystemNow();
    return {strSource, HostName(), ZoneText(static_cast<std::time_t>(now / kMicrosecondsPerSecond)),
            CivilOfSystem(now).value_or(0)};
}

std::string ZoneText(std::time_t time) {
    std::tm local = {};
    if (localtime_r(&time, &local) == nullptr) {
        return "unknown zone";
    }
    const std::string_view name = local.tm_zone == nullptr ? "" : local.tm_zone;
    if (local.tm_gmtoff == 0 && (name == "UTC" || name == "GMT")) {
        return std::string(name);
    }
    const long nMinutes = std::labs(local.tm_gmtoff) / 60;
    std::array<char, 48> szOffset = {};
    static_cast<void>(std::snprintf(szOffset.data(), szOffset.size(), "UTC%c%02ld:%02ld",
                                    local.tm_gmtoff < 0 ? '-' : '+', nMinutes / 60, nMinutes % 60));
    // Zones without a name of their own are called "+03".
    const bool bNamed = !name.empty() && name.front() != '+' && name.front() != '-';
    return szOffset.data() + (bNamed ? " (" + std::string(name) + ")" : "");
}

}  // namespace vexlog
