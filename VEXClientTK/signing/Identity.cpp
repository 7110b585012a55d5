#include "signing/Identity.h"

#include <algorithm>
#include <array>
#include <limits>
#include <new>
#include <optional>
#include <utility>

#include "signing/Base64.h"
#include "signing/Failure.h"
#include "signing/KeyTypes.h"

namespace vextk {
namespace {

// Null if this toolkit does not sign with keys of this kind.
const KeyType* FindKeyType(const EVP_PKEY* pKey) {
    const auto* const pFound = std::find_if(kKeyTypes.begin(), kKeyTypes.end(), [=](const KeyType& type) {
        return EVP_PKEY_is_a(pKey, type.pszName) == 1;
    });
    if (pFound == kKeyTypes.end()) {
        RequireMemory();
        return nullptr;
    }
    return pFound;
}

constexpr std::time_t kNever = std::numeric_limits<std::time_t>::max();
constexpr std::time_t kLongAgo = std::numeric_limits<std::time_t>::min();

std::string TimeText(std::time_t time) {
    return time == kNever || time == kLongAgo ? "unreadable" : TextOf(time);
}

std::string RequireText(std::optional<std::string> strText) {
    RequireOpenSsl(strText.has_value());
    return std::move(*strText);
}

// 0 when the key cannot be read.
unsigned int KeyBitsOf(const X509* pCertificate) {
    const EVP_PKEY* pKey = X509_get0_pubkey(pCertificate);
    if (pKey == nullptr) {
        return 0;
    }
    // For an EC key, EVP_PKEY_get_bits returns the size of the curve's order. The size of its field is wanted.
    std::array<char, 80> curve{};
    if (EVP_PKEY_get_group_name(pKey, curve.data(), curve.size(), nullptr) == 1) {
        if (const GroupPtr group(EC_GROUP_new_by_curve_name(OBJ_sn2nid(curve.data()))); group) {
            return static_cast<unsigned int>(EC_GROUP_get_degree(group.get()));
        }
    }
    return static_cast<unsigned int>(std::max(EVP_PKEY_get_bits(pKey), 0));
}

const X509_ALGOR* KeyAlgorithmIdentifier(const X509* pCertificate) {
    X509_ALGOR* pAlgorithm = nullptr;
    X509_PUBKEY_get0_param(nullptr, nullptr, nullptr, &pAlgorithm, X509_get_X509_PUBKEY(pCertificate));
    return pAlgorithm;
}

// For a key that cannot be read: RSA, or the dotted OID of another algorithm.
std::string KeyAlgorithmOf(const X509* pCertificate) {
    const ASN1_OBJECT* pObject = nullptr;
    X509_ALGOR_get0(&pObject, nullptr, nullptr, KeyAlgorithmIdentifier(pCertificate));
    const EVP_PKEY* pKey = X509_get0_pubkey(pCertificate);
    if (pKey == nullptr) {
        return OBJ_obj2nid(pObject) == NID_rsaEncryption ? "RSA" : DottedText(pObject);
    }
    if (const KeyType* const pType = FindKeyType(pKey)) {
        return pType->pszName;
    }
    const char* pszName = EVP_PKEY_get0_type_name(pKey);
    return pszName != nullptr ? pszName : DottedText(pObject);
}

// Whether the key is an EC key with its curve's parameters instead of the curve's name. RFC 5480 forbids this, and Java
// refuses to read it.
bool HasExplicitCurve(const X509* pCertificate) {
    const ASN1_OBJECT* pObject = nullptr;
    int nParameterType = V_ASN1_UNDEF;
    X509_ALGOR_get0(&pObject, &nParameterType, nullptr, KeyAlgorithmIdentifier(pCertificate));
    return OBJ_obj2nid(pObject) == NID_X9_62_id_ecPublicKey && nParameterType != V_ASN1_OBJECT;
}

// Whether OpenSSL can read the certificate's key when it tries again.
bool CanReadKey(X509* pCertificate) {
    unsigned char* pbDer = nullptr;
    const int cbDer = i2d_X509_PUBKEY(X509_get_X509_PUBKEY(pCertificate), &pbDer);
    const MemoryPtr<unsigned char> der(pbDer);
    const unsigned char* pbRead = pbDer;
    return cbDer > 0 && KeyPtr(d2i_PUBKEY(nullptr, &pbRead, cbDer)) != nullptr;
}

// OpenSSL reads a certificate's key and extensions once and keeps the result. It also keeps a failure when memory runs
// out, which would make the certificate useless from then on. This check finds such a failure and reports it.
void RequireRead(X509* pCertificate) {
    const ErrorMark mark;
    if (X509_get0_pubkey(pCertificate) == nullptr && CanReadKey(pCertificate)) {
        throw std::bad_alloc();
    }
    if (X509_check_purpose(pCertificate, -1, 0) != 1) {
        RequireMemory();
    }
}

}  // namespace

Identity::Identity(X509Ptr certificate, SigningKeyPtr key, Flaw flawWithoutKey, std::string strName)
    : m_certificate(std::move(certificate)),
      m_key(std::move(key)),
      m_notBefore(MomentOf(X509_get0_notBefore(m_certificate.get())).value_or(kNever)),
      m_notAfter(MomentOf(X509_get0_notAfter(m_certificate.get())).value_or(kLongAgo)),
      m_nKeyBits(KeyBitsOf(m_certificate.get())),
      m_strKeyAlgorithm(KeyAlgorithmOf(m_certificate.get())),
      m_strSerialHex(HexText(X509_get0_serialNumber(m_certificate.get()))),
      m_strFingerprintHex(RequireText(FingerprintText(m_certificate.get()))),
      m_strSubject(RequireText(vexcrypto::NameText(X509_get_subject_name(m_certificate.get())))),
      m_strIssuer(RequireText(vexcrypto::NameText(X509_get_issuer_name(m_certificate.get())))),
      m_strName(std::move(strName)) {
    RequireRead(m_certificate.get());
    const bool bTimesRead = m_notBefore != kNever && m_notAfter != kLongAgo;
    m_lastingFlaw = bTimesRead ? LastingFlaw(flawWithoutKey) : Flaw::kDamaged;
}

Flaw Identity::LastingFlaw(Flaw flawWithoutKey) const {
    const ErrorMark mark;
    // Fails for malformed extensions. Nobody accepts a signature made with such a certificate.
    if (X509_check_purpose(m_certificate.get(), -1, 0) != 1) {
        return Flaw::kDamaged;
    }
    const EVP_PKEY* pPublic = X509_get0_pubkey(m_certificate.get());
    const KeyType* const pType = pPublic != nullptr ? FindKeyType(pPublic) : nullptr;
    if (pType == nullptr || HasExplicitCurve(m_certificate.get())) {
        return pPublic == nullptr && m_strKeyAlgorithm == "RSA" ? Flaw::kDamaged : Flaw::kUnsupportedKey;
    }
    if (m_key == nullptr) {
        return flawWithoutKey;
    }
    // RFC 5280 section 4.2.1.3; all bits are set when the certificate restricts nothing.
    if ((X509_get_key_usage(m_certificate.get()) & (KU_DIGITAL_SIGNATURE | KU_NON_REPUDIATION)) == 0) {
        return Flaw::kNotForSigning;
    }
    return m_nKeyBits < pType->nLeastBits ? Flaw::kKeyTooShort : Flaw::kNone;
}

Flaw Identity::FlawAt(std::time_t time) const {
    if (m_lastingFlaw != Flaw::kNone || IsValidAt(time)) {
        return m_lastingFlaw;
    }
    return time < m_notBefore ? Flaw::kNotYetValid : Flaw::kExpired;
}

std::string Identity::NotBeforeText() const {
    return TimeText(m_notBefore);
}

std::string Identity::NotAfterText() const {
    return TimeText(m_notAfter);
}

std::string Identity::CertificateBase64() const {
    unsigned char* pbDer = nullptr;
    const int cbDer = i2d_X509(m_certificate.get(), &pbDer);
    RequireOpenSsl(cbDer > 0);
    const MemoryPtr<unsigned char> der(pbDer);
    return EncodeBase64(der.get(), static_cast<size_t>(cbDer));
}

IdentityPtr MakeIdentity(X509Ptr certificate, SigningKeyPtr key, Flaw flawWithoutKey, std::string strName) {
    if (certificate == nullptr) {
        return std::make_shared<const Identity>();
    }
    try {
        return std::make_shared<const Identity>(std::move(certificate), std::move(key), flawWithoutKey,
                                                std::move(strName));
    } catch (const Failure&) {
        RequireMemory();
        return std::make_shared<const Identity>();
    }
}

bool IsSigningKey(const EVP_PKEY* pKey) {
    return FindKeyType(pKey) != nullptr;
}

}  // namespace vextk
