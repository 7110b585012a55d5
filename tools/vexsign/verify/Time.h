// Moments as text: 2026-11-21T05:00:00Z.
#pragma once

#include <openssl/asn1.h>

#include <ctime>
#include <optional>
#include <string>

#include "crypto/Values.h"

namespace vexsign::verify {

// Two clocks may differ by so many seconds.
inline constexpr std::time_t kClockError = 300;

using vexcrypto::MomentOf;
using vexcrypto::TextOf;

// Nothing if the text is no moment.
std::optional<std::time_t> ParseMoment(const std::string& strText);

// "an impossible date" if the value is no moment.
std::string TextOf(const ASN1_TIME* pTime);

}  // namespace vexsign::verify
