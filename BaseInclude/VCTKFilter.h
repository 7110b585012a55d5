// Certificate filters of the substitute client toolkit, for VCTK_AddFilter. A certificate has to pass every filter.
#pragma once

#include "VEXType.h"

// The issuer's or the subject's name as RFC 4514 text contains the value, in any case.
inline constexpr ULONG VCTK_FILTER_ISSUER = 1;
inline constexpr ULONG VCTK_FILTER_SUBJECT = 2;

// Serial number in hexadecimal, in any case; colons between digit pairs and leading zeros do not matter.
inline constexpr ULONG VCTK_FILTER_SERIAL = 3;

// SHA-256 digest of the DER certificate: 64 hexadecimal digits, in any case; colons between pairs do not matter.
inline constexpr ULONG VCTK_FILTER_FINGERPRINT = 4;

// One of the key usages of RFC 5280 section 4.2.1.3 by OpenSSL's name, in any case: "digitalSignature",
// "nonRepudiation", "keyEncipherment", "dataEncipherment", "keyAgreement", "keyCertSign", "cRLSign", "encipherOnly",
// "decipherOnly". A certificate that restricts no usage passes.
inline constexpr ULONG VCTK_FILTER_KEY_USAGE = 5;

// "RSA" or "EC", in any case.
inline constexpr ULONG VCTK_FILTER_KEY_ALGORITHM = 6;
