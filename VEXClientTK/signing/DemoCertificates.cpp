#include "signing/DemoCertificates.h"

#include <openssl/ec.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

namespace vextk {
namespace {

// The certificates stay valid when the clock is set back a little.
constexpr std::time_t kClockTolerance = std::time_t{5} * 60;
constexpr std::time_t kLifetime = std::time_t{2} * 365 * 24 * 60 * 60;
constexpr int kSerialBits = 127;  // positive, and at most the 20 octets of RFC 5280

struct ExtensionText {
    int nId;
    const char* pszValue;
};
constexpr ExtensionText kExtensions[] = {
    {NID_basic_constraints, "critical,CA:FALSE"},
    {NID_key_usage, "critical,digitalSignature,nonRepudiation"},
    {NID_ext_key_usage, "emailProtection"},
    {NID_subject_key_identifier, "hash"},
};

void AddName(X509_NAME* pName, const char* pszField, const char* pszValue) {
    RequireOpenSsl(X509_NAME_add_entry_by_txt(pName, pszField, MBSTRING_UTF8,
                                              reinterpret_cast<const unsigned char*>(pszValue), -1, -1, 0) == 1);
}

X509Ptr MakeCertificate(EVP_PKEY* pKey, const char* pszCommonName, std::time_t now) {
    X509Ptr certificate(RequireOpenSsl(X509_new()));
    X509* pCertificate = certificate.get();
    RequireOpenSsl(X509_set_version(pCertificate, X509_VERSION_3) == 1);

    const BignumPtr serial(RequireOpenSsl(BN_new()));
    RequireOpenSsl(BN_rand(serial.get(), kSerialBits, BN_RAND_TOP_ONE, BN_RAND_BOTTOM_ANY) == 1);
    RequireOpenSsl(BN_to_ASN1_INTEGER(serial.get(), X509_get_serialNumber(pCertificate)));

    RequireOpenSsl(ASN1_TIME_set(X509_getm_notBefore(pCertificate), now - kClockTolerance));
    RequireOpenSsl(ASN1_TIME_set(X509_getm_notAfter(pCertificate), now + kLifetime));

    X509_NAME* pName = X509_get_subject_name(pCertificate);
    AddName(pName, "O", "VEX Client Toolkit");
    AddName(pName, "OU", "Demo, not for production");
    AddName(pName, "CN", pszCommonName);
    RequireOpenSsl(X509_set_issuer_name(pCertificate, pName) == 1);
    RequireOpenSsl(X509_set_pubkey(pCertificate, pKey) == 1);

    X509V3_CTX context;
    X509V3_set_ctx(&context, pCertificate, pCertificate, nullptr, nullptr, 0);
    for (const ExtensionText& text : kExtensions) {
        const ExtensionPtr extension(RequireOpenSsl(X509V3_EXT_conf_nid(nullptr, &context, text.nId, text.pszValue)));
        RequireOpenSsl(X509_add_ext(pCertificate, extension.get(), -1) == 1);
    }
    RequireOpenSsl(X509_sign(pCertificate, pKey, EVP_sha256()) > 0);
    return certificate;
}

void WriteIdentity(BIO* pBio, const KeyPtr& key, const char* pszCommonName, std::time_t now) {
    RequireOpenSsl(key != nullptr);
    const X509Ptr certificate = MakeCertificate(key.get(), pszCommonName, now);
    RequireOpenSsl(PEM_write_bio_PKCS8PrivateKey(pBio, key.get(), nullptr, nullptr, 0, nullptr, nullptr) == 1);
    RequireOpenSsl(PEM_write_bio_X509(pBio, certificate.get()) == 1);
}

}  // namespace

BioPtr MakeDemoCertificates(std::time_t now) {
    BioPtr bio(RequireOpenSsl(BIO_new(BIO_s_mem())));
    WriteIdentity(bio.get(), KeyPtr(EVP_RSA_gen(2048)), "VEX Demo RSA-2048", now);
    WriteIdentity(bio.get(), KeyPtr(EVP_EC_gen("P-256")), "VEX Demo EC P-256", now);
    return bio;
}

}  // namespace vextk
