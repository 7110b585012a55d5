// What the user wants of a time stamp.
#pragma once

#include <string>
#include <vector>

namespace vexsign {

inline constexpr int kDefaultStampTimeout = 10'000;
inline constexpr int kMostStampTimeout = 600'000;

struct TimeStamps {
    std::vector<std::string> authorities;  // URLs, tried in this order; empty: no time stamp is wanted
    std::string strDigest;                 // of the signature value; empty: SHA256
    std::string strPolicy;                 // an object identifier; empty: the authority chooses
    int nTimeout = kDefaultStampTimeout;   // milliseconds, for all authorities together
    std::string strTrusted;                // file with the certificates that are trusted; empty: no path is checked
};

}  // namespace vexsign
