#include "SignerKey.h"

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>

namespace vexsign {
namespace {

struct Free {
    void operator()(X509* pCertificate) const { X509_free(pCertificate); }
};

}  // namespace

bool SignsWholeDataOnly(const std::string& strCertificate) {
    const auto* pbDer = reinterpret_cast<const unsigned char*>(strCertificate.data());
    const std::unique_ptr<X509, Free> certificate(d2i_X509(nullptr, &pbDer, static_cast<long>(strCertificate.size())));
    const EVP_PKEY* const pKey = certificate ? X509_get0_pubkey(certificate.get()) : nullptr;
    return pKey != nullptr && (EVP_PKEY_is_a(pKey, "ED25519") == 1 || EVP_PKEY_is_a(pKey, "ED448") == 1);
}

}  // namespace vexsign
