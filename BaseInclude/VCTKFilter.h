// Certificate filters of the substitute client toolkit, for VCTK_AddFilter. A certificate has to pass every filter.
// "In any case" does not depend on the process locale.
#pragma once

#include "VEXType.h"

// The issuer's or the subject's name as RFC 4514 text contains the value, in any case.
inline constexpr ULONG VCTK_FILTER_ISSUER = 1;
inline constexpr ULONG VCTK_FILTER_SUBJECT = 2;

// Serial number in hexadecimal, in any case; colons between digit pairs and leading zeros do not matter. A negative
// number begins with "-".
inline constexpr ULONG VCTK_FILTER_SERIAL = 3;

// SHA-256 digest of the DER certificate: 64 hexadecimal digits, in any case; colons between pairs do not matter.
inline constexpr ULONG VCTK_FILTER_FINGERPRINT = 4;

// One of the key usages of RFC 5280 section 4.2.1.3 by OpenSSL's name, in any case: "digitalSignature",
// "nonRepudiation", "keyEncipherment", "dataEncipherment", "keyAgreement", "keyCertSign", "cRLSign", "encipherOnly",
// "decipherOnly". A certificate that restricts no usage passes.
inline constexpr ULONG VCTK_FILTER_KEY_USAGE = 5;

// "RSA" or "EC", in any case.
inline constexpr ULONG VCTK_FILTER_KEY_ALGORITHM = 6;

// All of these key usages: the names of VCTK_FILTER_KEY_USAGE ("contentCommitment" is "nonRepudiation"), separated by
// commas. A certificate that restricts no usage does not pass.
inline constexpr ULONG VCTK_FILTER_KEY_USAGE_ALL = 7;

// All of these extended key usages (RFC 5280 section 4.2.1.12) are listed: dotted OIDs, or "serverAuth", "clientAuth",
// "codeSigning", "emailProtection", "timeStamping", "OCSPSigning" in any case, separated by commas.
// "anyExtendedKeyUsage" in the certificate does not stand for others.
inline constexpr ULONG VCTK_FILTER_EXTENDED_KEY_USAGE = 8;

// The certificate is valid at this time as well: UTC, "2026-11-21T05:00:00Z".
inline constexpr ULONG VCTK_FILTER_VALID_AT = 9;

// This dotted OID is among the certificate policies.
inline constexpr ULONG VCTK_FILTER_POLICY = 10;

// The RSA modulus, or the field of the EC key's curve, has at least so many bits: decimal.
inline constexpr ULONG VCTK_FILTER_KEY_SIZE = 11;

// The subject's or the issuer's name equals this RFC 4514 name as RFC 5280 section 7.1 compares names: any case, and
// any number of blanks where there is one.
inline constexpr ULONG VCTK_FILTER_SUBJECT_NAME = 12;
inline constexpr ULONG VCTK_FILTER_ISSUER_NAME = 13;
