// Private keys on tokens.
#pragma once

#include <memory>
#include <optional>

#include "signing/SigningKey.h"
#include "signing/Token.h"

namespace vextk {

// The type of the token's keys that can sign for the certificate; nothing if there is none. The certificate may be
// null.
std::optional<CK_KEY_TYPE> TokenKeyType(const X509* pCertificate);

// A key that signs on the token. Each signature is verified with the certificate's public key. Null if the
// certificate's key type differs from that of the token's key. Throws VCTK_E_SIGN_FAILED for an Ed448 key.
SigningKeyPtr MakeTokenPrivateKey(std::shared_ptr<Token> token, TokenKey key, const X509* pCertificate);

}  // namespace vextk
