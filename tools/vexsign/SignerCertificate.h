// What the signer's certificate says about its key.
#pragma once

#include <string>

namespace vexsign {

// Whether the key signs data only as a whole, not by its digest (Ed25519, Ed448; RFC 8032). strCertificate: DER. False
// for anything that cannot be read. Use it only after the toolkit has opened a store (Hash.h).
bool SignsWholeDataOnly(const std::string& strCertificate);

}  // namespace vexsign
