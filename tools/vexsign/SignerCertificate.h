// What the signer's certificate says about its key and its purpose. strCertificate: DER; for anything that cannot be
// read the answer is no. Use these only after the toolkit has opened a store (Hash.h).
#pragma once

#include <string>

namespace vexsign {

// Whether the key signs data only as a whole, not by its digest (Ed25519, Ed448; RFC 8032).
bool SignsWholeDataOnly(const std::string& strCertificate);

// Whether openssl refuses the certificate for its default purpose, signing mail: by its extended key usages or its
// Netscape certificate type.
bool IsForOtherPurposes(const std::string& strCertificate);

}  // namespace vexsign
