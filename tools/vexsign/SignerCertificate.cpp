#include "SignerCertificate.h"

#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <memory>

namespace vexsign {
namespace {

struct Free {
    void operator()(X509* pCertificate) const { X509_free(pCertificate); }
};

std::unique_ptr<X509, Free> Read(const std::string& strCertificate) {
    const auto* pbDer = reinterpret_cast<const unsigned char*>(strCertificate.data());
    return std::unique_ptr<X509, Free>(d2i_X509(nullptr, &pbDer, static_cast<long>(strCertificate.size())));
}

}  // namespace

bool SignsWholeDataOnly(const std::string& strCertificate) {
    const auto certificate = Read(strCertificate);
    const EVP_PKEY* const pKey = certificate ? X509_get0_pubkey(certificate.get()) : nullptr;
    return pKey != nullptr && (EVP_PKEY_is_a(pKey, "ED25519") == 1 || EVP_PKEY_is_a(pKey, "ED448") == 1);
}

bool IsForOtherPurposes(const std::string& strCertificate) {
    const auto certificate = Read(strCertificate);
    return certificate && X509_check_purpose(certificate.get(), X509_PURPOSE_SMIME_SIGN, 0) == 0;
}

}  // namespace vexsign
