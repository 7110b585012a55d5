// Makes signatures.
#pragma once

#include <string>
#include <vector>

#include "signing/Identity.h"

namespace vextk {

using Bytes = std::vector<unsigned char>;

// Signs the digest of the data. RSA keys: RSASSA-PKCS1-v1_5 (RFC 8017 section 8.2). EC keys: ECDSA, as the DER sequence
// of RFC 3279 section 2.2.3. Returns Base64 in one line. Throws VCTK_E_SIGN_FAILED or VCTK_E_TOO_LARGE.
std::string SignP1(const Identity& identity, const EVP_MD* pDigest, const Bytes& data);

// Makes CMS SignedData (RFC 5652) in DER, with the signed attributes content-type, message-digest, signing-time and
// signing-certificate-v2 (RFC 5035). The content is signed byte for byte; line ends are not changed. Returns Base64 in
// one line. certificates: those to include. Throws as SignP1 does.
std::string SignP7(const Identity& identity, const EVP_MD* pDigest, const Bytes& data, bool bDetached,
                   const Identities& certificates);

}  // namespace vextk
