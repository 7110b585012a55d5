// Files of signatures and certificates: DER, Base64 or PEM.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "OpenSsl.h"
#include "Report.h"

namespace vexsign::verify {

// The bytes of a signature's file: the file itself, or what its Base64 or PEM encodes. Returns nothing if it begins
// like PEM and is damaged or is about something else.
std::optional<std::string> DecodeSignature(std::string file);

// P7 begins with a sequence whose first element is an object identifier. No P1 does: ECDSA begins with a number, and
// RSA and EdDSA have no form.
Kind KindOf(std::string_view bytes);

// All certificates of the file: PEM, or one as DER or Base64. strName: for messages. Throws std::runtime_error if there
// is none, or one cannot be read.
CertificatesPtr ReadCertificates(const std::string& strFile, const std::string& strName);

}  // namespace vexsign::verify
