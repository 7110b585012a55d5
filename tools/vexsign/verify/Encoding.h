// Files of signatures and certificates: DER, Base64 or PEM.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "OpenSsl.h"
#include "Report.h"
#include "vexsign/AttachedContent.h"

namespace vexsign::verify {

// The largest file with a signature: an attached one as Base64 in lines.
inline constexpr std::size_t kMostSignatureFile = kMostAttached / 3 * 4 + kMostAttached / 32;

enum class FileForm { kBytes, kBase64, kPem };

// A signature's file: its bytes, which are the file itself, or what its Base64 or PEM encodes.
struct SignatureFile {
    std::string strBytes;
    FileForm form = FileForm::kBytes;
    std::string strLabel = {};  // of the PEM
};

// Returns nothing if the file begins like PEM and is damaged or is about something else.
std::optional<SignatureFile> ParseSignatureFile(std::string file);
// Only the bytes.
std::optional<std::string> DecodeSignature(std::string file);

// For the user who gives such a message, as "openssl cms -sign" writes it without -outform: what to give in its place.
// Null for every other file.
const char* AdviceAboutMessage(std::string_view file);

// P7 begins with a sequence whose first element is an object identifier. No P1 does: ECDSA begins with a number, and
// RSA and EdDSA have no form.
Kind KindOf(std::string_view bytes);

// All certificates of the file: PEM, or one as DER or Base64. strName: for messages. Throws std::runtime_error if there
// is none, or one cannot be read.
CertificatesPtr ReadCertificates(const std::string& strFile, const std::string& strName);

}  // namespace vexsign::verify
