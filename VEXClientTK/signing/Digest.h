// Digest algorithms by name.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "signing/OpenSsl.h"

namespace vextk {

struct SigningDigest {
    std::shared_ptr<const EVP_MD> algorithm;  // null: not known, the input is signed as it is
    bool bPss = false;        // RSA keys sign with RSASSA-PSS, with this digest in MGF1 too, and a salt of its length
    bool bPrehashed = false;  // the input is the digest
};

// Reads "[prehashed:]NAME[/PSS]", in any case. NAME is in OpenSSL's or the JCA's spelling, "SHA256", "sha-256",
// "SHA2-256", "SHA3-512" ..., or for "prehashed:NONE" a digest that only the caller knows. Throws VCTK_E_DIGEST_WEAK
// for MD2, MD4, MD5 and SHA-1, VCTK_E_DIGEST_UNKNOWN for everything else that is not SHA-2 or SHA-3.
SigningDigest FindDigest(std::string_view strName);

// The name that people use, "SHA-256" or "SHA3-256". OpenSSL says "SHA2-256".
std::string DigestName(const EVP_MD* pDigest);

}  // namespace vextk
