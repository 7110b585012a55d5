// PKCS #12 files as other programs make them.
#include <gtest/gtest.h>

#include <openssl/pkcs12.h>

#include <memory>
#include <string>

#include "Row.h"
#include "signing/Store.h"

namespace vextk {
namespace {

// The bytes of a file with one key and its certificate.
std::string MakePkcs12(const char* pszPin, int nEncryption) {
    const KeyPtr key(EVP_EC_gen("P-256"));
    const X509Ptr certificate(X509_new());
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), 0);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 1000);
    X509_set_pubkey(certificate.get(), key.get());
    X509_sign(certificate.get(), key.get(), EVP_sha256());
    using Pkcs12Ptr = std::unique_ptr<PKCS12, OpenSslDeleter<PKCS12_free>>;
    const Pkcs12Ptr file(
        PKCS12_create(pszPin, nullptr, key.get(), certificate.get(), nullptr, nEncryption, nEncryption, 0, 0, 0));
    const BioPtr bytes(BIO_new(BIO_s_mem()));
    i2d_PKCS12_bio(bytes.get(), file.get());
    return MemoryBioText(bytes.get());
}

struct NoPin : Row {
    const char* pszPin;
    int nEncryption = 0;  // OpenSSL's usual one; -1: nothing is encrypted
};

class Pkcs12WithoutPin : public testing::TestWithParam<NoPin> {};

// The empty PIN and none at all encrypt in different ways; a key need not be encrypted at all.
TEST_P(Pkcs12WithoutPin, OpensWithoutOne) {
    EXPECT_EQ(ReadIdentities(MakePkcs12(GetParam().pszPin, GetParam().nEncryption), nullptr).size(), 1U);
}

INSTANTIATE_TEST_SUITE_P(, Pkcs12WithoutPin,
                         testing::Values(NoPin{"Empty", ""}, NoPin{"None", nullptr}, NoPin{"NothingEncrypted", "", -1}),
                         RowName);

}  // namespace
}  // namespace vextk
