#include "signing/StoreContent.h"

#include <openssl/ec.h>
#include <openssl/evperr.h>
#include <openssl/pemerr.h>

#include <new>
#include <utility>

namespace vextk {
namespace {

struct KeyKind {
    int nAlgorithm;             // its NID
    const ASN1_OBJECT* pCurve;  // null: none is named
};

KeyKind KindOf(const PKCS8_PRIV_KEY_INFO* pKeyInfo) {
    const X509_ALGOR* pAlgorithm = nullptr;
    PKCS8_pkey_get0(nullptr, nullptr, nullptr, &pAlgorithm, pKeyInfo);
    const ASN1_OBJECT* pObject = nullptr;
    int nParameterType = V_ASN1_UNDEF;
    const void* pParameter = nullptr;
    X509_ALGOR_get0(&pObject, &nParameterType, &pParameter, pAlgorithm);
    return {OBJ_obj2nid(pObject),
            nParameterType == V_ASN1_OBJECT ? static_cast<const ASN1_OBJECT*>(pParameter) : nullptr};
}

// OpenSSL tries each of its decoders on a key of another algorithm, which takes as long as many keys.
bool IsKnownAlgorithm(int nAlgorithm) {
    return nAlgorithm == NID_rsaEncryption || nAlgorithm == NID_rsassaPss || nAlgorithm == NID_X9_62_id_ecPublicKey ||
           nAlgorithm == NID_ED25519 || nAlgorithm == NID_ED448;
}

// Whether OpenSSL knows the curve, if the key has one and names it.
bool IsKnownCurve(const KeyKind& kind) {
    if (kind.nAlgorithm != NID_X9_62_id_ecPublicKey || kind.pCurve == nullptr) {
        return true;
    }
    const bool bKnown = GroupPtr(EC_GROUP_new_by_curve_name(OBJ_obj2nid(kind.pCurve))) != nullptr;
    if (!bKnown) {
        RequireMemory();
    }
    return bKnown;
}

}  // namespace

void StoreContent::AddName(const void* pNamed, std::string strName) {
    if (!strName.empty()) {
        names.emplace(pNamed, std::move(strName));
    }
}

void StoreContent::AddCertificate(X509Ptr certificate, std::string strName) {
    if (certificate) {
        AddName(certificate.get(), std::move(strName));
        certificates.push_back(std::move(certificate));
    } else {
        RequireMemory();
        ++cDamagedCertificates;
    }
}

void StoreContent::AddKey(const PKCS8_PRIV_KEY_INFO* pKeyInfo, std::string strName) {
    const KeyKind kind = KindOf(pKeyInfo);
    if (!IsKnownAlgorithm(kind.nAlgorithm)) {
        return;
    }
    if (KeyPtr key = m_keyReader->Read(pKeyInfo)) {
        AddName(key.get(), std::move(strName));
        keys.push_back(std::move(key));
        return;
    }
    RequireMemory();
    if (IsKnownCurve(kind)) {
        throw UnreadablePrivateKey();
    }
}

Failure DamagedStore(const std::string& strWhere) {
    return Failure(VCTK_E_STORE_FORMAT, strWhere + " is damaged");
}

Failure UnreadablePrivateKey() {
    return Failure(VCTK_E_STORE_FORMAT, "a private key in it is damaged or has a form that OpenSSL does not read");
}

void ThrowDecryptionFailure(Pin pin) {
    RequireMemory();
    while (const unsigned long ulError = ERR_get_error()) {
        const int nReason = ERR_GET_REASON(ulError);
        if (nReason == ERR_R_MALLOC_FAILURE) {
            throw std::bad_alloc();
        }
        const bool bEvp = ERR_GET_LIB(ulError) == ERR_LIB_EVP;
        if (bEvp && nReason == EVP_R_MEMORY_LIMIT_EXCEEDED) {
            throw Failure(VCTK_E_STORE_FORMAT, "its key derivation, scrypt, needs more memory than OpenSSL grants it");
        }
        if (bEvp && (nReason == EVP_R_DECODE_ERROR || nReason == EVP_R_CIPHER_PARAMETER_ERROR ||
                     nReason == EVP_R_ILLEGAL_SCRYPT_PARAMETERS)) {
            throw Failure(VCTK_E_STORE_FORMAT, "the parameters of its encryption cannot be used");
        }
        if ((bEvp && (nReason == ERR_R_UNSUPPORTED || nReason == EVP_R_UNKNOWN_PBE_ALGORITHM ||
                      nReason == EVP_R_UNSUPPORTED_CIPHER || nReason == EVP_R_UNSUPPORTED_PRF ||
                      nReason == EVP_R_UNSUPPORTED_KEY_DERIVATION_FUNCTION)) ||
            (ERR_GET_LIB(ulError) == ERR_LIB_PEM && nReason == PEM_R_UNSUPPORTED_ENCRYPTION)) {
            throw Failure(VCTK_E_STORE_FORMAT, "it is encrypted in a way that OpenSSL does not offer");
        }
    }
    if (pin == Pin::kUntried) {
        throw DamagedStore("an encrypted part of it");
    }
    if (pin == Pin::kRight || pin == Pin::kRightBeyondAscii) {
        const std::string strEncoding =
            "; or the PIN is in another character encoding than when the file was made, usually UTF-8";
        throw Failure(VCTK_E_STORE_FORMAT, "an encrypted part of it is damaged or has another PIN than the file" +
                                               (pin == Pin::kRight ? "" : strEncoding));
    }
    throw Failure(pin == Pin::kGiven ? VCTK_E_PIN_WRONG : VCTK_E_PIN_REQUIRED);
}

}  // namespace vextk
