#include "signing/SigningKey.h"

#include <openssl/rsa.h>

#include <algorithm>
#include <list>
#include <utility>

#include "signing/Failure.h"
#include "signing/MutexPool.h"

namespace vextk {
namespace {

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

// A context that is set up for signatures of one kind. Setting one up takes a sixth of the time of a P-256 signature,
// so it is used again. An RSA key is copied for each: threads that did not make the first signature with a key wait for
// each other at its blinding, and two of them sign only 1.5 times as fast as one.
struct Prepared {
    Scheme scheme;
    int nDigest;  // OpenSSL's number of the digest
    KeyContextPtr context;
    bool bProven = false;  // a signature of it has been verified
};

class MemoryKey final : public SigningKey {
public:
    explicit MemoryKey(KeyPtr key) : m_key(std::move(key)) {}

    Bytes Sign(const SigningRequest& request) const override {
        return request.scheme == Scheme::kEdwards ? SignMessage(request) : SignDigest(request);
    }

private:
    using Contexts = std::list<Prepared>;

    Bytes SignDigest(const SigningRequest& request) const {
        Contexts own = TakeContext(request);  // freed, not kept, if the signature fails
        Bytes signature(static_cast<size_t>(EVP_PKEY_get_size(m_key.get())));
        size_t cbSignature = signature.size();
        // Where memory has run out, OpenSSL may say that it has signed, and give an impossible length.
        RequireSigned(EVP_PKEY_sign(own.front().context.get(), signature.data(), &cbSignature, request.data.data(),
                                    request.data.size()) == 1 &&
                      cbSignature <= signature.size());
        signature.resize(cbSignature);
        // OpenSSL does not compare the two halves of an EC key that it reads from a file.
        if (!own.front().bProven && !IsSignature(m_key.get(), request, signature)) {
            throw Failure(VCTK_E_SIGN_FAILED,
                          "the private key is damaged: its signature does not match the certificate");
        }
        own.front().bProven = true;
        KeepContext(std::move(own));
        return signature;
    }

    // A list of one context. Only the caller uses it.
    Contexts TakeContext(const SigningRequest& request) const {
        const int nDigest = request.pDigest != nullptr ? EVP_MD_get_type(request.pDigest) : NID_undef;
        Contexts own;
        {
            const CVEXLock lock(m_mutex);
            const auto found = std::find_if(m_idle.begin(), m_idle.end(), [&](const Prepared& idle) {
                return idle.scheme == request.scheme && idle.nDigest == nDigest;
            });
            if (found != m_idle.end()) {
                own.splice(own.begin(), m_idle, found);
                return own;
            }
        }
        const KeyPtr copy = request.scheme == Scheme::kEcdsa ? nullptr : CopyKey();
        own.push_back({request.scheme, nDigest, KeyContextPtr(EVP_PKEY_CTX_new((copy ? copy : m_key).get(), nullptr))});
        EVP_PKEY_CTX* const pContext = own.front().context.get();
        RequireSigned(pContext != nullptr && EVP_PKEY_sign_init(pContext) == 1 && SetScheme(pContext, request));
        return own;
    }

    // Null: the key's provider cannot copy it.
    KeyPtr CopyKey() const {
        const ErrorMark mark;
        KeyPtr copy(EVP_PKEY_dup(m_key.get()));
        if (!copy) {
            RequireMemory();
        }
        return copy;
    }

    void KeepContext(Contexts own) const noexcept {
        const CVEXLock lock(m_mutex);
        m_idle.splice(m_idle.begin(), own);
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
    CVEXMutex& m_mutex = MutexPool::Next();
    mutable Contexts m_idle VEX_GUARDED_BY(m_mutex);  // as many as threads have signed at once
};

}  // namespace

SigningKeyPtr MakeMemoryKey(KeyPtr key) {
    return key ? std::make_unique<const MemoryKey>(std::move(key)) : nullptr;
}

namespace {

bool Verifies(EVP_PKEY* pPublic, const SigningRequest& request, std::span<const unsigned char> signature) {
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

}  // namespace

bool IsSignature(EVP_PKEY* pPublic, const SigningRequest& request, std::span<const unsigned char> signature) {
    const ErrorMark mark;
    const bool bGood = Verifies(pPublic, request, signature);
    if (!bGood) {
        RequireMemory();
    }
    return bGood;
}

void RequireSigned(bool bSucceeded) {
    if (!bSucceeded) {
        RequireMemory();
        throw Failure(VCTK_E_SIGN_FAILED, LastOpenSslReason());
    }
}

}  // namespace vextk
