// How a certificate's key signs, and P1 signatures.
#pragma once

#include <string>

#include "signing/Digest.h"
#include "signing/Identity.h"

namespace vextk {

// How the identity's key signs with this digest setting. Throws VCTK_E_SIGN_FAILED if they do not fit.
Scheme ChooseScheme(const Identity& identity, const SigningDigest& digest);

Bytes HashOf(const EVP_MD* pDigest, std::span<const unsigned char> data);

// Signs the data; if the digest is given in advance, the data are the digest. Returns the signature in Base64, in one
// line. Throws VCTK_E_SIGN_FAILED or VCTK_E_TOO_LARGE.
std::string SignP1(const Identity& identity, const SigningDigest& digest, const Bytes& data);

}  // namespace vextk
