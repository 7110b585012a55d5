#include "signing/Identity.h"

#include <openssl/ec.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <limits>
#include <new>

#include "signing/Base64.h"
#include "signing/Failure.h"

namespace vextk {
namespace {

constexpr const char* kKeyAlgorithms[] = {"RSA", "EC"};

// A time that cannot be read makes the certificate one that is never valid: after the end of all times, or before
// their beginning.
std::time_t ToTime(const ASN1_TIME* pTime, std::time_t unreadable) {
    std::tm parts{};
    return ASN1_TIME_to_tm(pTime, &parts) == 1 ? timegm(&parts) : unreadable;
}

std::string IsoText(std::time_t time) {
    std::tm parts{};
    if (gmtime_r(&time, &parts) == nullptr) {
        return "unreadable";
    }
    // strftime writes the year 950 in three digits.
    std::array<char, 96> text{};
    std::snprintf(text.data(), text.size(), "%04d-%02d-%02dT%02d:%02d:%02dZ", parts.tm_year + 1900, parts.tm_mon + 1,
                  parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec);
    return text.data();
}

std::string HexText(const unsigned char* pbData, size_t cbData) {
    constexpr char kDigits[] = "0123456789ABCDEF";
    std::string text;
    text.reserve(cbData * 2);
    for (size_t i = 0; i < cbData; ++i) {
        text += kDigits[pbData[i] >> 4];
        text += kDigits[pbData[i] & 15];
    }
    return text;
}

std::string SerialText(const X509* pCertificate) {
    const BignumPtr number(RequireOpenSsl(ASN1_INTEGER_to_BN(X509_get0_serialNumber(pCertificate), nullptr)));
    const MemoryPtr<char> text(RequireOpenSsl(BN_bn2hex(number.get())));
    return text.get();
}

std::string FingerprintText(const X509* pCertificate) {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int cbDigest = 0;
    RequireOpenSsl(X509_digest(pCertificate, EVP_sha256(), digest.data(), &cbDigest) == 1);
    return HexText(digest.data(), cbDigest);
}

std::string NameText(const X509_NAME* pName) {
    // UTF-8 is left readable; everything else is escaped as RFC 4514 asks.
    constexpr unsigned long kFlags = XN_FLAG_RFC2253 & ~static_cast<unsigned long>(ASN1_STRFLGS_ESC_MSB);
    const BioPtr bio(RequireOpenSsl(BIO_new(BIO_s_mem())));
    RequireOpenSsl(X509_NAME_print_ex(bio.get(), pName, 0, kFlags) >= 0);
    return MemoryBioText(bio.get());
}

// 0 when the key cannot be read.
unsigned int KeyBitsOf(const X509* pCertificate) {
    const EVP_PKEY* pKey = X509_get0_pubkey(pCertificate);
    if (pKey == nullptr) {
        return 0;
    }
    // OpenSSL's own answer for an EC key is the size of the curve's order.
    std::array<char, 80> curve{};
    if (EVP_PKEY_get_group_name(pKey, curve.data(), curve.size(), nullptr) == 1) {
        using GroupPtr = std::unique_ptr<EC_GROUP, OpenSslDeleter<EC_GROUP_free>>;
        if (const GroupPtr group(EC_GROUP_new_by_curve_name(OBJ_sn2nid(curve.data()))); group) {
            return static_cast<unsigned int>(EC_GROUP_get_degree(group.get()));
        }
    }
    return static_cast<unsigned int>(std::max(EVP_PKEY_get_bits(pKey), 0));
}

// Whether OpenSSL can read the certificate's key when it tries anew.
bool CanReadKey(X509* pCertificate) {
    unsigned char* pbDer = nullptr;
    const int cbDer = i2d_X509_PUBKEY(X509_get_X509_PUBKEY(pCertificate), &pbDer);
    const MemoryPtr<unsigned char> der(pbDer);
    const unsigned char* pbRead = pbDer;
    return cbDer > 0 && KeyPtr(d2i_PUBKEY(nullptr, &pbRead, cbDer)) != nullptr;
}

// OpenSSL reads a certificate's key and extensions once and keeps the result, a want of memory as well, which would
// make the certificate useless from then on. It is found out here, where it can be told. Without a key that can be
// read, or with malformed extensions, it is as good as it can be.
void RequireRead(X509* pCertificate) {
    const OpenSslErrorMark mark;
    const bool fKeyLost = X509_get0_pubkey(pCertificate) == nullptr && CanReadKey(pCertificate);
    if (fKeyLost || (X509_check_purpose(pCertificate, -1, 0) != 1 &&
                     ERR_GET_REASON(ERR_peek_last_error()) == ERR_R_MALLOC_FAILURE)) {
        throw std::bad_alloc();
    }
}

}  // namespace

Identity::Identity(X509Ptr certificate, KeyPtr key)
    : m_certificate(std::move(certificate)),
      m_key(std::move(key)),
      m_notBefore(ToTime(X509_get0_notBefore(m_certificate.get()), std::numeric_limits<std::time_t>::max())),
      m_notAfter(ToTime(X509_get0_notAfter(m_certificate.get()), std::numeric_limits<std::time_t>::min())),
      m_nKeyBits(KeyBitsOf(m_certificate.get())),
      m_strSerialHex(SerialText(m_certificate.get())),
      m_strFingerprintHex(FingerprintText(m_certificate.get())),
      m_strSubject(NameText(X509_get_subject_name(m_certificate.get()))),
      m_strIssuer(NameText(X509_get_issuer_name(m_certificate.get()))) {
    RequireRead(m_certificate.get());
}

std::string Identity::NotBeforeText() const {
    return IsoText(m_notBefore);
}

std::string Identity::NotAfterText() const {
    return IsoText(m_notAfter);
}

const char* Identity::KeyAlgorithm() const {
    for (const char* pszAlgorithm : kKeyAlgorithms) {
        if (EVP_PKEY_is_a(m_key.get(), pszAlgorithm) == 1) {
            return pszAlgorithm;
        }
    }
    return "";
}

std::string Identity::CertificateBase64() const {
    unsigned char* pbDer = nullptr;
    const int cbDer = i2d_X509(m_certificate.get(), &pbDer);
    RequireOpenSsl(cbDer > 0);
    const MemoryPtr<unsigned char> der(pbDer);
    return EncodeBase64(der.get(), static_cast<size_t>(cbDer));
}

bool IsSigningKey(const EVP_PKEY* pKey) {
    for (const char* pszAlgorithm : kKeyAlgorithms) {
        if (EVP_PKEY_is_a(pKey, pszAlgorithm) == 1) {
            return true;
        }
    }
    return false;
}

}  // namespace vextk
