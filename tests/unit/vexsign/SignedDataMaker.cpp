#include "SignedDataMaker.h"

#include <openssl/objects.h>
#include <openssl/pem.h>

#include <algorithm>
#include <stdexcept>

namespace vexsign::verify {
namespace {

constexpr unsigned char kSequence = 0x30;
constexpr unsigned char kSet = 0x31;
constexpr unsigned char kInteger = 0x02;
constexpr unsigned char kOctetString = 0x04;
constexpr unsigned char kContext0 = 0xA0;
constexpr const char* kRsaEncryption = "1.2.840.113549.1.1.1";
constexpr const char* kEcdsaWithSha256 = "1.2.840.10045.4.3.2";

void Require(bool bHolds) {
    if (!bHolds) {
        throw std::runtime_error("the test cannot make its signature: " + TakeReason());
    }
}

template <auto Encode, typename T>
std::string Encoded(const T* pObject) {
    unsigned char* pb = nullptr;
    const int cb = Encode(pObject, &pb);
    Require(cb > 0);
    const MemoryPtr<unsigned char> owner(pb);
    return {reinterpret_cast<const char*>(pb), static_cast<std::size_t>(cb)};
}

std::string Algorithm(const char* pszDotted, bool bNull) {
    return Tlv(kSequence, ObjectIdentifier(pszDotted) + (bNull ? Tlv(0x05, "") : ""));
}

std::string Attribute(const char* pszDotted, const std::string& strValue) {
    return Tlv(kSequence, ObjectIdentifier(pszDotted) + Tlv(kSet, strValue));
}

std::string Join(const std::vector<std::string>& parts) {
    std::string strAll;
    for (const std::string& strPart : parts) {
        strAll += strPart;
    }
    return strAll;
}

}  // namespace

TestSigner LoadSigner(const TempDirectory& directory, const std::string& strKey, const std::string& strCertificate) {
    TestSigner signer;
    const BioPtr key(BIO_new_file(directory.Path(strKey + ".key").c_str(), "r"));
    signer.key.reset(PEM_read_bio_PrivateKey(key.get(), nullptr, nullptr, nullptr));
    const BioPtr certificate(BIO_new_file(directory.Path(strCertificate + ".crt").c_str(), "r"));
    signer.certificate.reset(PEM_read_bio_X509(certificate.get(), nullptr, nullptr, nullptr));
    Require(signer.key && signer.certificate);
    return signer;
}

std::string ObjectIdentifier(const char* pszDotted) {
    const ObjectPtr object(OBJ_txt2obj(pszDotted, 1));
    return Encoded<i2d_ASN1_OBJECT>(object.get());
}

std::string DigestOf(const char* pszDigest, std::string_view bytes) {
    std::string strDigest(EVP_MAX_MD_SIZE, '\0');
    std::size_t cb = 0;
    Require(EVP_Q_digest(nullptr, pszDigest, nullptr, bytes.data(), bytes.size(),
                         reinterpret_cast<unsigned char*>(strDigest.data()), &cb) == 1);
    strDigest.resize(cb);
    return strDigest;
}

std::string SignBytes(EVP_PKEY* pKey, const char* pszDigest, std::string_view bytes) {
    const DigestContextPtr context(EVP_MD_CTX_new());
    const auto* const pb = reinterpret_cast<const unsigned char*>(bytes.data());
    std::size_t cb = 0;
    Require(EVP_DigestSignInit_ex(context.get(), nullptr, pszDigest, nullptr, nullptr, pKey, nullptr) == 1);
    Require(EVP_DigestSign(context.get(), nullptr, &cb, pb, bytes.size()) == 1);
    std::string strSignature(cb, '\0');
    Require(EVP_DigestSign(context.get(), reinterpret_cast<unsigned char*>(strSignature.data()), &cb, pb,
                           bytes.size()) == 1);
    strSignature.resize(cb);
    return strSignature;
}

std::string EcdsaSequence(std::string_view r, std::string_view s) {
    return Tlv(kSequence, Tlv(kInteger, r) + Tlv(kInteger, s));
}

std::string ContentTypeAttribute(const char* pszDotted) {
    return Attribute("1.2.840.113549.1.9.3", ObjectIdentifier(pszDotted));
}

std::string DigestAttribute(std::string_view digest) {
    return Attribute("1.2.840.113549.1.9.4", Tlv(kOctetString, digest));
}

std::string TimeAttribute(const std::string& strTime) {
    constexpr unsigned char kUtcTime = 0x17;
    return Attribute("1.2.840.113549.1.9.5", Tlv(kUtcTime, strTime));
}

std::string BindingAttribute(X509* pCertificate) {
    const std::string strHash = DigestOf("SHA256", Encoded<i2d_X509>(pCertificate));
    const std::string strIdentifier = Tlv(kSequence, Tlv(kOctetString, strHash));
    return Attribute("1.2.840.113549.1.9.16.2.47", Tlv(kSequence, Tlv(kSequence, strIdentifier)));
}

std::string MakeSigner(const Recipe& recipe, std::string_view content) {
    std::vector<std::string> attributes = recipe.attributes;
    if (recipe.bSorted) {
        std::sort(attributes.begin(), attributes.end());
    }
    std::string strAttributes = Join(attributes);
    EVP_PKEY* const pKey = recipe.pOtherKey != nullptr ? recipe.pOtherKey : recipe.pSigner->key.get();
    std::string strSignature =
        SignBytes(pKey, recipe.pszDigest, attributes.empty() ? std::string(content) : Tlv(kSet, strAttributes));
    if (recipe.signature) {
        strSignature = recipe.signature(strSignature);
    }
    if (recipe.attributesInFile) {
        strAttributes = recipe.attributesInFile(strAttributes);
    }
    X509* const pCertificate = recipe.pSigner->certificate.get();
    const std::string strIdentifier =
        Tlv(kSequence, Encoded<i2d_X509_NAME>(X509_get_issuer_name(pCertificate)) +
                           Encoded<i2d_ASN1_INTEGER>(X509_get0_serialNumber(pCertificate)));
    const bool bRsa = EVP_PKEY_get_base_id(recipe.pSigner->key.get()) == EVP_PKEY_RSA;
    const char* const pszOid = recipe.pszSignatureOid != nullptr ? recipe.pszSignatureOid
                               : bRsa                            ? kRsaEncryption
                                                                 : kEcdsaWithSha256;
    return Tlv(kSequence, Tlv(kInteger, "\x01") + strIdentifier + Algorithm(recipe.pszDigestOid, false) +
                              (attributes.empty() ? "" : Tlv(kContext0, strAttributes)) + Algorithm(pszOid, bRsa) +
                              Tlv(kOctetString, strSignature));
}

std::string MakeSignedData(const std::vector<std::string>& signers, const std::vector<X509*>& certificates,
                           const std::string* pContent, const char* pszDigestOid) {
    std::string strCertificates;
    for (const X509* const pCertificate : certificates) {
        strCertificates += Encoded<i2d_X509>(pCertificate);
    }
    const std::string strContent = Tlv(
        kSequence, ObjectIdentifier(kData) + (pContent == nullptr ? "" : Tlv(kContext0, Tlv(kOctetString, *pContent))));
    const std::string strSignedData =
        Tlv(kSequence, Tlv(kInteger, "\x01") + Tlv(kSet, Algorithm(pszDigestOid, false)) + strContent +
                           (certificates.empty() ? "" : Tlv(kContext0, strCertificates)) + Tlv(kSet, Join(signers)));
    return Tlv(kSequence, ObjectIdentifier("1.2.840.113549.1.7.2") + Tlv(kContext0, strSignedData));
}

}  // namespace vexsign::verify
