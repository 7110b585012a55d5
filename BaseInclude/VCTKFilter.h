// Certificate filters of the substitute client toolkit, for VCTK_AddFilter. A certificate must pass every filter.
// "Case-insensitive" does not depend on the process locale.
#pragma once

#include "VEXType.h"

// The issuer's or subject's name, written as RFC 4514 text, contains the value. Case-insensitive.
inline constexpr ULONG VCTK_FILTER_ISSUER = 1;
inline constexpr ULONG VCTK_FILTER_SUBJECT = 2;

// Serial number in hexadecimal, case-insensitive. Colons between digit pairs and leading zeros are ignored. A negative
// number begins with "-".
inline constexpr ULONG VCTK_FILTER_SERIAL = 3;

// SHA-256 digest of the DER certificate: 64 hexadecimal digits, case-insensitive. Colons between pairs are ignored.
inline constexpr ULONG VCTK_FILTER_FINGERPRINT = 4;

// One key usage of RFC 5280 section 4.2.1.3, case-insensitive: "digitalSignature", "nonRepudiation" (or
// "contentCommitment"), "keyEncipherment", "dataEncipherment", "keyAgreement", "keyCertSign", "cRLSign",
// "encipherOnly", "decipherOnly". A certificate without a key usage extension passes.
inline constexpr ULONG VCTK_FILTER_KEY_USAGE = 5;

// The key's algorithm, case-insensitive: "RSA", "RSA-PSS", "EC", "ED25519" or "ED448".
inline constexpr ULONG VCTK_FILTER_KEY_ALGORITHM = 6;

// All of these key usages: the names of VCTK_FILTER_KEY_USAGE, separated by commas. A certificate without a key usage
// extension does not pass.
inline constexpr ULONG VCTK_FILTER_KEY_USAGE_ALL = 7;

// The certificate lists all of these extended key usages (RFC 5280 section 4.2.1.12), separated by commas: dotted OIDs,
// or "serverAuth", "clientAuth", "codeSigning", "emailProtection", "timeStamping", "OCSPSigning", case-insensitive.
// "anyExtendedKeyUsage" in the certificate does not include others.
inline constexpr ULONG VCTK_FILTER_EXTENDED_KEY_USAGE = 8;

// The certificate is also valid at this time, in UTC: "2026-11-21T05:00:00Z".
inline constexpr ULONG VCTK_FILTER_VALID_AT = 9;

// The certificate policies include this dotted OID.
inline constexpr ULONG VCTK_FILTER_POLICY = 10;

// The RSA modulus, or the field of the EC key's curve, has at least this number of bits (decimal).
inline constexpr ULONG VCTK_FILTER_KEY_SIZE = 11;

// The subject's or issuer's name equals this RFC 4514 name, compared as in RFC 5280 section 7.1: case-insensitive, and
// any number of blanks equals one blank.
inline constexpr ULONG VCTK_FILTER_SUBJECT_NAME = 12;
inline constexpr ULONG VCTK_FILTER_ISSUER_NAME = 13;
