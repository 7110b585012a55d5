// Makes a private key on a token usable through OpenSSL.
#pragma once

#include <memory>

#include "signing/OpenSsl.h"
#include "signing/Token.h"

namespace vextk {

// A key whose private operations run on the token: RSA with PKCS #1 v1.5 padding, and ECDSA. Each signature is verified
// with the certificate's public key. Null if the certificate's key type differs from that of the token's key.
KeyPtr MakeTokenPrivateKey(std::shared_ptr<Token> token, TokenKey key, const X509* pCertificate);

// OpenSSL reports that a private operation failed, but not why. Throws the reason, if this thread has one.
void ThrowTokenFailure();

// Call this before an operation, so that ThrowTokenFailure does not report an older failure.
void ForgetTokenFailure();

}  // namespace vextk
