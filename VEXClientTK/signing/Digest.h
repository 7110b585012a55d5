// Digest algorithms by name.
#pragma once

#include <string_view>

#include "signing/OpenSsl.h"

namespace vextk {

// strName in OpenSSL's or the JCA's spelling, in any case: "SHA256", "sha-256", "SHA2-256", "SHA3-512" ... Throws
// VCTK_E_DIGEST_WEAK for MD2, MD4, MD5 and SHA-1, VCTK_E_DIGEST_UNKNOWN for everything else that is not SHA-2 or SHA-3.
DigestPtr FindDigest(std::string_view strName);

}  // namespace vextk
