// Gets a time stamp for a signature and adds it. Any thread.
#pragma once

#include <chrono>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "timestamp/Token.h"

namespace vextimestamp {

inline constexpr std::chrono::milliseconds kDefaultTimeout{10'000};
inline constexpr std::chrono::milliseconds kMostTimeout{600'000};

struct Settings {
    std::vector<std::string> authorities;  // http:// addresses, tried in this order
    Wanted wanted;
    std::chrono::milliseconds timeout = kDefaultTimeout;  // for all authorities together
    std::shared_ptr<X509_STORE> trusted;  // who must have issued the authority's certificate; null: anybody
};

// Returns the CMS signature with a time stamp of the first authority that gives a good one. Each authority gets an
// equal part of the time that is left, so that a dead one leaves time for the next. Throws Fault, which names what each
// authority did wrong.
Bytes Stamp(std::span<const unsigned char> cms, const Settings& settings);

}  // namespace vextimestamp
