// Private keys, in files and on tokens, and what they are asked to sign.
#pragma once

#include <memory>
#include <span>
#include <vector>

#include "signing/OpenSsl.h"

namespace vextk {

using Bytes = std::vector<unsigned char>;

enum class Scheme {
    kRsaPkcs1,  // RSASSA-PKCS1-v1_5, RFC 8017 section 8.2
    kRsaPss,    // RSASSA-PSS, RFC 8017 section 8.1: the same digest in MGF1, a salt of the digest's length
    kEcdsa,     // the DER sequence of RFC 3279 section 2.2.3
    kEdwards,   // Ed25519 and Ed448, RFC 8032
};

struct SigningRequest {
    Scheme scheme;
    const EVP_MD* pDigest;                // null: the bytes are signed as they are
    std::span<const unsigned char> data;  // the digest; with kEdwards, the message
};

// Immutable; any thread may use it.
class SigningKey {
public:
    SigningKey() = default;
    virtual ~SigningKey() = default;
    SigningKey(const SigningKey&) = delete;
    SigningKey& operator=(const SigningKey&) = delete;

    // The request's scheme must be one of this key's type. Throws VCTK_E_SIGN_FAILED, and for a token's key what Token
    // throws.
    virtual Bytes Sign(const SigningRequest& request) const = 0;
};
using SigningKeyPtr = std::unique_ptr<const SigningKey>;

// A key that OpenSSL has in memory. Null for null.
SigningKeyPtr MakeMemoryKey(KeyPtr key);

// Whether it is the signature of this request with the private key that belongs to this public key.
bool IsSignature(EVP_PKEY* pPublic, const SigningRequest& request, std::span<const unsigned char> signature);

// Throws VCTK_E_SIGN_FAILED with OpenSSL's reason unless bSucceeded.
void RequireSigned(bool bSucceeded);

}  // namespace vextk
