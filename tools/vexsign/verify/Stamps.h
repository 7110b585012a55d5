// The time stamps of a signature, RFC 3161 and RFC 5126 section 6.1.
#pragma once

#include <ctime>
#include <optional>

#include "Certificate.h"
#include "OpenSsl.h"
#include "Report.h"

namespace vexsign::verify {

// Checks each time stamp that the signer's unsigned attributes hold. Returns the moment of the earliest one that is
// good and whose authority is trusted; signer.time then has it. An authority that nobody vouches for is a fault only if
// the user named others.
std::optional<std::time_t> CheckStamps(CMS_SignerInfo* pInfo, const Settings& settings, SignerReport& signer);

}  // namespace vexsign::verify
