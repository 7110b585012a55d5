// Asks a time-stamp authority over HTTP (RFC 3161 section 3.4). Any thread.
#pragma once

#include <chrono>
#include <span>
#include <string>

#include "timestamp/Fault.h"

namespace vextimestamp {

// Sends the request and returns the body of the answer, at most 64 KiB. strUrl: http:// only. No proxy is used, no
// redirect followed. Returns or throws at the deadline at the latest, and leaves no connection behind. Throws Fault;
// its text does not begin with the address.
Bytes Exchange(const std::string& strUrl, std::span<const unsigned char> request,
               std::chrono::steady_clock::time_point deadline);

}  // namespace vextimestamp
