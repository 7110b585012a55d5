// P7 signatures.
#pragma once

#include <ctime>
#include <string>

#include "signing/Digest.h"
#include "signing/Identity.h"
#include "timestamp/Stamp.h"

namespace vextk {

// Makes CMS SignedData (RFC 5652) in DER, with the signed attributes content-type, message-digest, signing-time and
// signing-certificate-v2 (RFC 5035). The content is signed byte for byte; line ends are not changed. If the digest is
// given in advance, the data are the digest. Returns Base64 in one line. certificates: those to include. now: the
// signing time, for which the identity was chosen. pStamp: how the signature is time-stamped; null: it is not, and no
// socket is opened. Throws VCTK_E_INVALID_ARGUMENT, VCTK_E_SIGN_FAILED, VCTK_E_TOO_LARGE or VCTK_E_TIMESTAMP.
std::string SignP7(const Identity& identity, const SigningDigest& digest, const Bytes& data, bool bDetached,
                   const Identities& certificates, std::time_t now, const vextimestamp::Settings* pStamp);

}  // namespace vextk
