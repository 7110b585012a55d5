// Numbers and strings of ASN.1 as bytes.
#pragma once

#include <optional>

#include "timestamp/Der.h"
#include "timestamp/Fault.h"
#include "timestamp/OpenSsl.h"

namespace vextimestamp {

// Big-endian, without leading zeros. Nothing: it is negative or zero, or there is none.
std::optional<Bytes> PositiveBytes(const ASN1_INTEGER* pNumber);

// The bytes, which the string keeps.
View ViewOf(const ASN1_STRING* pString);

}  // namespace vextimestamp
