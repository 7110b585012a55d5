// PINs of PEM keys that are encrypted as in RFC 1421, for which OpenSSL asks with a buffer of 1024 bytes.
#include <gtest/gtest.h>
#include <openssl/pem.h>

#include <string>

#include "MemoryBio.h"
#include "Secret.h"
#include "SelfSigned.h"
#include "signing/Identity.h"
#include "signing/Store.h"

namespace vextk {
namespace {

std::string EncryptedPem(const std::string& strPin) {
    const SelfSigned parts;
    const BioPtr bio(BIO_new(BIO_s_mem()));
    PEM_write_bio_X509(bio.get(), parts.certificate.get());
    PEM_write_bio_PrivateKey_traditional(bio.get(), parts.key.get(), EVP_aes_128_cbc(),
                                         reinterpret_cast<const unsigned char*>(strPin.data()),
                                         static_cast<int>(strPin.size()), nullptr, nullptr);
    return MemoryBioText(bio.get());
}

TEST(PemPin, MayFillTheBuffer) {
    InitialiseOpenSsl();
    const std::string strPin(PEM_BUFSIZE, 'p');
    const SecretText pin = Secret(strPin);
    const Identities identities = ReadIdentities(EncryptedPem(strPin), &pin);
    ASSERT_EQ(identities.size(), 1U);
    EXPECT_NE(identities[0]->Key(), nullptr);
}

TEST(PemPin, BeyondTheBufferIsWrong) {
    InitialiseOpenSsl();
    const SecretText pin = Secret(std::string(PEM_BUFSIZE + 1, 'p'));
    try {
        ReadIdentities(EncryptedPem("another"), &pin);
        ADD_FAILURE() << "opened";
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.Number(), VCTK_E_PIN_WRONG);
    }
}

}  // namespace
}  // namespace vextk
