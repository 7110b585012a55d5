// What the user wants of a time stamp.
#pragma once

#include <string>
#include <vector>

#include "timestamp/Stamp.h"

namespace vexsign {

inline constexpr int kDefaultStampTimeout = vextimestamp::kDefaultTimeout.count();
inline constexpr int kMostStampTimeout = vextimestamp::kMostTimeout.count();

struct TimeStamps {
    std::vector<std::string> authorities;  // URLs, tried in this order; empty: no time stamp is wanted
    std::string strDigest;                 // of the signature value; empty: SHA256
    std::string strPolicy;                 // an object identifier; empty: the authority chooses
    int nTimeout = kDefaultStampTimeout;   // milliseconds, for all authorities together
    std::string strTrusted;                // file with the certificates that are trusted; empty: no path is checked
};

}  // namespace vexsign
