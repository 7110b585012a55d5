// OpenSSL encodes for RSASSA-PSS without signing only in functions for its old type of keys.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "signing/TokenPrivateKey.h"

#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/rsa.h>

#include <algorithm>
#include <array>

namespace vextk {
namespace {

using DigestInfoPtr = std::unique_ptr<X509_SIG, Deleter<X509_SIG_free>>;
using RsaPtr = std::unique_ptr<RSA, Deleter<RSA_free>>;

// The digests that PKCS #11 names for CKM_RSA_PKCS_PSS.
struct PssDigest {
    const char* pszName;
    CK_MECHANISM_TYPE nDigest;
    CK_RSA_PKCS_MGF_TYPE nMask;
};
constexpr std::array kPssDigests = {
    PssDigest{"SHA2-224", CKM_SHA224, CKG_MGF1_SHA224}, PssDigest{"SHA2-256", CKM_SHA256, CKG_MGF1_SHA256},
    PssDigest{"SHA2-384", CKM_SHA384, CKG_MGF1_SHA384}, PssDigest{"SHA2-512", CKM_SHA512, CKG_MGF1_SHA512}};

// RFC 8017 section 9.2, step 2.
Bytes DigestInfo(const SigningRequest& request) {
    const DigestInfoPtr info(RequireOpenSsl(X509_SIG_new()));
    X509_ALGOR* pAlgorithm = nullptr;
    ASN1_OCTET_STRING* pHash = nullptr;
    X509_SIG_getm(info.get(), &pAlgorithm, &pHash);
    unsigned char* pbDer = nullptr;
    RequireOpenSsl(X509_ALGOR_set0(pAlgorithm, OBJ_nid2obj(EVP_MD_get_type(request.pDigest)), V_ASN1_NULL, nullptr) ==
                       1 &&
                   ASN1_OCTET_STRING_set(pHash, request.data.data(), static_cast<int>(request.data.size())) == 1);
    const int cbDer = i2d_X509_SIG(info.get(), &pbDer);
    const MemoryPtr<unsigned char> der(pbDer);
    RequireOpenSsl(cbDer > 0);
    return Bytes(pbDer, pbDer + cbDer);
}

BignumPtr Parameter(const EVP_PKEY* pKey, const char* pszName) {
    BIGNUM* pNumber = nullptr;
    RequireOpenSsl(EVP_PKEY_get_bn_param(pKey, pszName, &pNumber) == 1);
    return BignumPtr(pNumber);
}

// RFC 8017 section 9.1.1: what raw RSA then signs.
Bytes PssEncoding(const EVP_PKEY* pPublic, const SigningRequest& request) {
    const RsaPtr rsa(RequireOpenSsl(RSA_new()));
    BignumPtr n = Parameter(pPublic, OSSL_PKEY_PARAM_RSA_N);
    BignumPtr e = Parameter(pPublic, OSSL_PKEY_PARAM_RSA_E);
    RequireOpenSsl(RSA_set0_key(rsa.get(), n.get(), e.get(), nullptr) == 1);
    static_cast<void>(n.release());
    static_cast<void>(e.release());
    Bytes encoding(static_cast<size_t>(RSA_size(rsa.get())));
    RequireSigned(RSA_padding_add_PKCS1_PSS_mgf1(rsa.get(), encoding.data(), request.data.data(), request.pDigest,
                                                 request.pDigest, RSA_PSS_SALTLEN_DIGEST) == 1);
    return encoding;
}

// The DER sequence of a token's signature, which is two numbers of equal length.
Bytes EcdsaDer(const Bytes& pair) {
    EcSignaturePtr signature(RequireOpenSsl(ECDSA_SIG_new()));
    const int cbHalf = static_cast<int>(pair.size() / 2);
    BignumPtr r(RequireOpenSsl(BN_bin2bn(pair.data(), cbHalf, nullptr)));
    BignumPtr s(RequireOpenSsl(BN_bin2bn(pair.data() + cbHalf, cbHalf, nullptr)));
    RequireOpenSsl(ECDSA_SIG_set0(signature.get(), r.release(), s.release()) == 1);
    unsigned char* pbDer = nullptr;
    const int cbDer = i2d_ECDSA_SIG(signature.get(), &pbDer);
    const MemoryPtr<unsigned char> der(pbDer);
    RequireOpenSsl(cbDer > 0);
    return Bytes(pbDer, pbDer + cbDer);
}

class TokenPrivateKey final : public SigningKey {
public:
    TokenPrivateKey(std::shared_ptr<Token> token, TokenKey key, KeyPtr publicKey)
        : m_token(std::move(token)), m_key(std::move(key)), m_public(std::move(publicKey)) {}

    Bytes Sign(const SigningRequest& request) const override {
        Bytes signature = SignOnToken(request);
        if (!IsSignature(m_public.get(), request, signature)) {
            throw Failure(VCTK_E_TOKEN_FAILED, "the token's signature does not match the certificate's public key")
                .About(m_token->Name().strLabel);
        }
        return signature;
    }

private:
    Bytes SignOnToken(const SigningRequest& request) const {
        switch (request.scheme) {
            case Scheme::kRsaPss:
                return SignPss(request);
            case Scheme::kEcdsa:
                return EcdsaDer(
                    m_token->Sign(m_key, {CKM_ECDSA, nullptr, 0}, request.data.first(UsedByEcdsa(request))));
            case Scheme::kEdwards:
                return m_token->Sign(m_key, {CKM_EDDSA, nullptr, 0}, request.data);
            default:
                break;
        }
        const Bytes info = request.pDigest != nullptr ? DigestInfo(request) : Bytes();
        return m_token->Sign(m_key, {CKM_RSA_PKCS, nullptr, 0}, request.pDigest != nullptr ? info : request.data);
    }

    Bytes SignPss(const SigningRequest& request) const {
        const auto* const pNames = std::find_if(kPssDigests.begin(), kPssDigests.end(), [&](const PssDigest& digest) {
            return EVP_MD_is_a(request.pDigest, digest.pszName) == 1;
        });
        if (pNames != kPssDigests.end() && m_token->Offers(CKM_RSA_PKCS_PSS)) {
            CK_RSA_PKCS_PSS_PARAMS parameters{pNames->nDigest, pNames->nMask,
                                              static_cast<CK_ULONG>(EVP_MD_get_size(request.pDigest))};
            return m_token->Sign(m_key, {CKM_RSA_PKCS_PSS, &parameters, sizeof parameters}, request.data);
        }
        if (m_token->Offers(CKM_RSA_X_509)) {
            return m_token->Sign(m_key, {CKM_RSA_X_509, nullptr, 0}, PssEncoding(m_public.get(), request));
        }
        throw Failure(VCTK_E_SIGN_FAILED,
                      pNames == kPssDigests.end()
                          ? "for RSASSA-PSS with this digest, the token needs CKM_RSA_X_509, which it does not offer"
                          : "for RSASSA-PSS, the token needs CKM_RSA_PKCS_PSS or CKM_RSA_X_509, and offers neither");
    }

    // A token accepts no digest that is longer than the curve's order.
    size_t UsedByEcdsa(const SigningRequest& request) const {
        const auto cbOrder = static_cast<size_t>((EVP_PKEY_get_bits(m_public.get()) + 7) / 8);
        return std::min(request.data.size(), cbOrder);
    }

    const std::shared_ptr<Token> m_token;
    const TokenKey m_key;
    const KeyPtr m_public;
};

// A type's name in OpenSSL and in PKCS #11.
struct KeyTypeName {
    const char* pszName;
    CK_KEY_TYPE type;
};
constexpr std::array kKeyTypeNames = {KeyTypeName{"RSA", CKK_RSA}, KeyTypeName{"RSA-PSS", CKK_RSA},
                                      KeyTypeName{"EC", CKK_EC}, KeyTypeName{"ED25519", CKK_EC_EDWARDS}};

}  // namespace

std::optional<CK_KEY_TYPE> TokenKeyType(const X509* pCertificate) {
    const ErrorMark mark;  // OpenSSL notes a key that it cannot read
    const EVP_PKEY* const pPublic = pCertificate != nullptr ? X509_get0_pubkey(pCertificate) : nullptr;
    const auto* const pFound = std::find_if(kKeyTypeNames.begin(), kKeyTypeNames.end(), [&](const KeyTypeName& name) {
        return pPublic != nullptr && EVP_PKEY_is_a(pPublic, name.pszName) == 1;
    });
    return pFound != kKeyTypeNames.end() ? std::optional(pFound->type) : std::nullopt;
}

SigningKeyPtr MakeTokenPrivateKey(std::shared_ptr<Token> token, TokenKey key, const X509* pCertificate) {
    EVP_PKEY* const pPublic = X509_get0_pubkey(pCertificate);
    if (pPublic != nullptr && EVP_PKEY_is_a(pPublic, "ED448") == 1) {
        // Its mechanism has parameters that modules do not agree on.
        throw Failure(VCTK_E_SIGN_FAILED, "the toolkit does not sign with Ed448 keys on tokens");
    }
    if (pPublic == nullptr || TokenKeyType(pCertificate) != key.type) {
        return nullptr;
    }
    EVP_PKEY_up_ref(pPublic);
    return std::make_unique<const TokenPrivateKey>(std::move(token), std::move(key), KeyPtr(pPublic));
}

}  // namespace vextk
