// Finds the addresses of a host within a deadline.
#pragma once

#include <netdb.h>

#include <memory>
#include <string>

#include "timestamp/Connection.h"

namespace vextimestamp {

struct FreeAddresses {
    void operator()(addrinfo* pAddresses) const { freeaddrinfo(pAddresses); }
};
using AddressesPtr = std::unique_ptr<addrinfo, FreeAddresses>;

// Lookups of this process at a time. A name server that does not answer holds one for about half a minute, whatever the
// deadline is.
inline constexpr int kMostLookups = 64;

// Any thread. At least one. Throws Fault if there is none or the deadline is over. strPort: digits.
AddressesPtr AddressesOf(const std::string& strHost, const std::string& strPort, Deadline deadline);

}  // namespace vextimestamp
