// A private key on a token as OpenSSL's key type.
#pragma once

#include <memory>

#include "signing/OpenSsl.h"
#include "signing/Token.h"

namespace vextk {

// A key whose private operations run on the token, for RSA with PKCS #1 v1.5 padding and for ECDSA. Each result is
// verified with the certificate's public key. Null when the certificate's key is of another kind than the token's.
KeyPtr MakeTokenPrivateKey(std::shared_ptr<Token> token, TokenKey key, const X509* pCertificate);

// OpenSSL reports that a private operation failed, and not why. Throws the calling thread's reason if there is one.
void ThrowTokenFailure();

// To be called before an operation whose failure is to be told by ThrowTokenFailure.
void ForgetTokenFailure();

}  // namespace vextk
