#include "signing/SigningKey.h"

#include <openssl/rsa.h>

#include <utility>

#include "signing/Failure.h"

namespace vextk {
namespace {

using KeyContextPtr = std::unique_ptr<EVP_PKEY_CTX, OpenSslDeleter<EVP_PKEY_CTX_free>>;

// The digest comes first: a key of id-RSASSA-PSS compares its smallest salt with the digest's length.
bool SetScheme(EVP_PKEY_CTX* pContext, const SigningRequest& request) {
    if (request.pDigest != nullptr && EVP_PKEY_CTX_set_signature_md(pContext, request.pDigest) != 1) {
        return false;
    }
    switch (request.scheme) {
        case Scheme::kRsaPkcs1:
            return EVP_PKEY_CTX_set_rsa_padding(pContext, RSA_PKCS1_PADDING) == 1;
        case Scheme::kRsaPss:
            return EVP_PKEY_CTX_set_rsa_padding(pContext, RSA_PKCS1_PSS_PADDING) == 1 &&
                   EVP_PKEY_CTX_set_rsa_pss_saltlen(pContext, RSA_PSS_SALTLEN_DIGEST) == 1;
        default:
            return true;
    }
}

class MemoryKey final : public SigningKey {
public:
    explicit MemoryKey(KeyPtr key) : m_key(std::move(key)) {}

    Bytes Sign(const SigningRequest& request) const override {
        return request.scheme == Scheme::kEdwards ? SignMessage(request) : SignDigest(request);
    }

private:
    Bytes SignDigest(const SigningRequest& request) const {
        const KeyContextPtr context(EVP_PKEY_CTX_new(m_key.get(), nullptr));
        size_t cbSignature = 0;
        RequireSigned(context && EVP_PKEY_sign_init(context.get()) == 1 && SetScheme(context.get(), request) &&
                      EVP_PKEY_sign(context.get(), nullptr, &cbSignature, request.data.data(), request.data.size()) ==
                          1);
        Bytes signature(cbSignature);
        RequireSigned(EVP_PKEY_sign(context.get(), signature.data(), &cbSignature, request.data.data(),
                                    request.data.size()) == 1);
        signature.resize(cbSignature);
        return signature;
    }

    Bytes SignMessage(const SigningRequest& request) const {
        const DigestContextPtr context(EVP_MD_CTX_new());
        size_t cbSignature = 0;
        RequireSigned(context && EVP_DigestSignInit(context.get(), nullptr, nullptr, nullptr, m_key.get()) == 1 &&
                      EVP_DigestSign(context.get(), nullptr, &cbSignature, request.data.data(), request.data.size()) ==
                          1);
        Bytes signature(cbSignature);
        RequireSigned(EVP_DigestSign(context.get(), signature.data(), &cbSignature, request.data.data(),
                                     request.data.size()) == 1);
        signature.resize(cbSignature);
        return signature;
    }

    const KeyPtr m_key;
};

}  // namespace

SigningKeyPtr MakeMemoryKey(KeyPtr key) {
    return key ? std::make_unique<const MemoryKey>(std::move(key)) : nullptr;
}

bool IsSignature(EVP_PKEY* pPublic, const SigningRequest& request, std::span<const unsigned char> signature) {
    const OpenSslErrorMark mark;
    if (request.scheme == Scheme::kEdwards) {
        const DigestContextPtr context(EVP_MD_CTX_new());
        return context && EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, pPublic) == 1 &&
               EVP_DigestVerify(context.get(), signature.data(), signature.size(), request.data.data(),
                                request.data.size()) == 1;
    }
    const KeyContextPtr context(EVP_PKEY_CTX_new(pPublic, nullptr));
    return context && EVP_PKEY_verify_init(context.get()) == 1 && SetScheme(context.get(), request) &&
           EVP_PKEY_verify(context.get(), signature.data(), signature.size(), request.data.data(),
                           request.data.size()) == 1;
}

void RequireSigned(bool bSucceeded) {
    if (!bSucceeded) {
        throw Failure(VCTK_E_SIGN_FAILED, LastOpenSslReason());
    }
}

}  // namespace vextk
