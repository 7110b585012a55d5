// Certificates whose public key OpenSSL cannot read.
#include <gtest/gtest.h>
#include <openssl/pem.h>

#include <ctime>
#include <string>

#include "MemoryBio.h"
#include "Row.h"
#include "SelfSigned.h"
#include "signing/Identity.h"
#include "signing/Store.h"

namespace vextk {
namespace {

// PEM of a certificate with a key of this algorithm and impossible bytes.
std::string CertificateOf(const char* pszAlgorithm) {
    const SelfSigned parts;
    auto* const pbKey = static_cast<unsigned char*>(OPENSSL_zalloc(4));
    X509_PUBKEY_set0_param(X509_get_X509_PUBKEY(parts.certificate.get()), OBJ_txt2obj(pszAlgorithm, 1), V_ASN1_NULL,
                           nullptr, pbKey, 4);
    X509_sign(parts.certificate.get(), parts.key.get(), EVP_sha256());
    const BioPtr bio(BIO_new(BIO_s_mem()));
    PEM_write_bio_X509(bio.get(), parts.certificate.get());
    return MemoryBioText(bio.get());
}

struct UnreadableKeyRow : Row {
    const char* pszAlgorithm;
    const char* pszShown;
    Flaw flaw;
};

class UnreadableKeyOfACertificate : public testing::TestWithParam<UnreadableKeyRow> {};

TEST_P(UnreadableKeyOfACertificate, IsShownByItsAlgorithm) {
    InitialiseOpenSsl();
    const Identities identities = ReadIdentities(CertificateOf(GetParam().pszAlgorithm), nullptr);
    ASSERT_EQ(identities.size(), 1U);
    EXPECT_EQ(identities[0]->KeyAlgorithm(), GetParam().pszShown);
    EXPECT_EQ(identities[0]->KeyBits(), 0U);
    EXPECT_EQ(identities[0]->FlawAt(std::time(nullptr)), GetParam().flaw);
    EXPECT_EQ(identities[0]->Key(), nullptr);
}

INSTANTIATE_TEST_SUITE_P(, UnreadableKeyOfACertificate,
                         testing::Values(UnreadableKeyRow{"Unknown", "1.2.3.4", "1.2.3.4", Flaw::kUnsupportedKey},
                                         UnreadableKeyRow{"DamagedRsa", "1.2.840.113549.1.1.1", "RSA", Flaw::kDamaged}),
                         RowName);

}  // namespace
}  // namespace vextk
