// Values of ASN.1 as C++ values. Pure; any thread. They throw std::bad_alloc when memory runs out.
#pragma once

#include <openssl/asn1.h>
#include <openssl/x509.h>

#include <ctime>
#include <optional>
#include <string>

namespace vexcrypto {

// An object identifier in dotted form; empty if OpenSSL does not show it, which it does up to 586 bytes of DER.
std::string DottedText(const ASN1_OBJECT* pObject);

// Hexadecimal, "-" before a negative number.
std::string HexText(const ASN1_INTEGER* pNumber);

// Nothing: no such moment. Fractions of a second are cut off.
std::optional<std::time_t> MomentOf(const ASN1_TIME* pTime);

// As "2026-11-22T18:00:00Z".
std::string TextOf(std::time_t nTime);

// SHA-256 of the certificate's DER in upper-case hexadecimal. Nothing: OpenSSL cannot compute it.
std::optional<std::string> FingerprintText(const X509* pCertificate);

// RFC 4514, UTF-8. Nothing: OpenSSL cannot show it.
std::optional<std::string> NameText(const X509_NAME* pName);

}  // namespace vexcrypto
