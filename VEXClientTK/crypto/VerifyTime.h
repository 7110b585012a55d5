// The moment for which OpenSSL checks a certificate path.
#pragma once

#include <openssl/x509_vfy.h>

#include <ctime>

namespace vexcrypto {

// The certificates of the path must be valid at this moment. A certificate is valid from its first to its last second
// (RFC 5280 section 4.1.2.5); by itself OpenSSL leaves out the last one. Replaces the verify callback.
void SetVerifyTime(X509_STORE_CTX* pContext, std::time_t nMoment);

}  // namespace vexcrypto
