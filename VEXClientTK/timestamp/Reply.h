// The reply of a time-stamp authority (RFC 3161 section 2.4.2). Any thread.
#pragma once

#include <span>

#include "timestamp/Fault.h"

namespace vextimestamp {

// The token of a DER TimeStampResp, byte for byte. Throws Fault if the request was not granted, with the authority's
// reasons, and if the bytes are no reply or more than one.
Bytes TokenOf(std::span<const unsigned char> reply);

}  // namespace vextimestamp
