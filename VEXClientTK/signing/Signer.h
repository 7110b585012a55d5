// Makes signatures.
#pragma once

#include <string>
#include <vector>

#include "signing/Identity.h"

namespace vextk {

using Bytes = std::vector<unsigned char>;

// RSASSA-PKCS1-v1_5 (RFC 8017 section 8.2) over the digest of the data, or for an EC key ECDSA as the DER sequence of
// RFC 3279 section 2.2.3. Base64 in one line. Throws VCTK_E_SIGN_FAILED or VCTK_E_TOO_LARGE.
std::string SignP1(const Identity& identity, const EVP_MD* pDigest, const Bytes& data);

// CMS SignedData (RFC 5652) in DER with the signed attributes content-type, message-digest, signing-time and
// signing-certificate-v2 (RFC 5035). The content is signed byte for byte, without regard to line ends. Base64 in one
// line. Throws as SignP1.
std::string SignP7(const Identity& identity, const EVP_MD* pDigest, const Bytes& data, bool bDetached,
                   bool bIncludeCertificate);

}  // namespace vextk
