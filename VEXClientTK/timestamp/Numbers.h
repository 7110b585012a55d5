// Numbers and texts of ASN.1 as C++ values.
#pragma once

#include <ctime>
#include <optional>
#include <string>

#include "timestamp/Der.h"
#include "timestamp/Fault.h"
#include "timestamp/OpenSsl.h"

namespace vextimestamp {

// Big-endian, without leading zeros. Nothing: it is negative or zero, or there is none.
std::optional<Bytes> PositiveBytes(const ASN1_INTEGER* pNumber);

// The bytes, which the string keeps.
View ViewOf(const ASN1_STRING* pString);

// Hexadecimal, "-" before a negative number.
std::string HexText(const ASN1_INTEGER* pNumber);

// Nothing: no such moment. Fractions of a second are cut off.
std::optional<std::time_t> MomentOf(const ASN1_TIME* pTime);

// As "2026-11-22T18:00:00Z".
std::string TextOf(std::time_t nTime);

// RFC 4514, UTF-8. Nothing: OpenSSL cannot show it.
std::optional<std::string> NameText(const X509_NAME* pName);

}  // namespace vextimestamp
