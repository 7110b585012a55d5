// Old PKCS #12 files: who can use the ciphers that reading them needs, and what is left of that afterwards.
#include "signing/LegacyCiphers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <latch>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "ChildProcess.h"
#include "MemoryBio.h"
#include "Row.h"
#include "Secret.h"
#include "SelfSigned.h"
#include "TempDirectory.h"
#include "signing/Failure.h"
#include "signing/Pkcs12.h"
#include "signing/Store.h"

namespace vextk {
namespace {

constexpr const char* kOldFilePin = "1234";
constexpr int kRc2 = NID_pbe_WithSHA1And40BitRC2_CBC;
constexpr int kTripleDes = NID_pbe_WithSHA1And3_Key_TripleDES_CBC;

// The bytes of a file with one key and its certificate. What writes it is gone afterwards.
std::string OldFile(int nCertificate, int nKey) {
    const LibraryContextPtr context(OSSL_LIB_CTX_new());
    const ProviderPtr current(OSSL_PROVIDER_load(context.get(), "default"));
    const ProviderPtr legacy(OSSL_PROVIDER_load(context.get(), "legacy"));
    const SelfSigned pair;
    const Pkcs12Ptr file(PKCS12_create_ex(kOldFilePin, nullptr, pair.key.get(), pair.certificate.get(), nullptr, nKey,
                                          nCertificate, 0, 0, 0, context.get(), nullptr));
    const BioPtr bytes(BIO_new(BIO_s_mem()));
    i2d_PKCS12_bio(bytes.get(), file.get());
    return MemoryBioText(bytes.get());
}

// Whether code that asks OpenSSL for a cipher, and knows no library context, gets one of the old ones.
bool IsVisible() {
    const ErrorMark mark;
    return OSSL_PROVIDER_available(nullptr, "legacy") == 1 ||
           CipherPtr(EVP_CIPHER_fetch(nullptr, "RC2-40-CBC", nullptr)) != nullptr;
}

bool Signs(const Identity& identity) {
    const std::array<unsigned char, 32> digest{};
    const SigningRequest request{
        EVP_PKEY_is_a(X509_get0_pubkey(identity.Certificate()), "EC") == 1 ? Scheme::kEcdsa : Scheme::kRsaPkcs1,
        EVP_sha256(), digest};
    return IsSignature(X509_get0_pubkey(identity.Certificate()), request, identity.Key()->Sign(request));
}

// ---- Which encryption needs the module ----

AlgorithmPtr Pbes1By(int nAlgorithm) {
    return AlgorithmPtr(PKCS5_pbe_set(nAlgorithm, 1, nullptr, 0));
}

AlgorithmPtr Pbes2By(int nCipher) {
    AlgorithmPtr algorithm(PKCS5_pbe2_set(EVP_aes_256_cbc(), 1, nullptr, 0));
    const Pbe2Ptr both(
        static_cast<PBE2PARAM*>(ASN1_TYPE_unpack_sequence(ASN1_ITEM_rptr(PBE2PARAM), algorithm->parameter)));
    both->encryption->algorithm = OBJ_nid2obj(nCipher);
    ASN1_TYPE_pack_sequence(ASN1_ITEM_rptr(PBE2PARAM), both.get(), &algorithm->parameter);
    return algorithm;
}

AlgorithmPtr Garbage() {
    AlgorithmPtr algorithm = Pbes2By(NID_des_cbc);
    ASN1_STRING_set(algorithm->parameter->value.sequence, "\x30\x01\x02", 3);
    return algorithm;
}

struct Encryption : Row {
    AlgorithmPtr (*pfnMake)(int nNumber);
    int nNumber;
    const char* pszOldCipher;  // null: none is needed
};

class LegacyCiphersOf : public testing::TestWithParam<Encryption> {};

TEST_P(LegacyCiphersOf, AreLentOnlyWhereNeeded) {
    const AlgorithmPtr algorithm = GetParam().pfnMake(GetParam().nNumber);
    LegacyCiphers ciphers;
    OSSL_LIB_CTX* const pContext = ciphers.ContextFor(algorithm.get());
    EXPECT_EQ(ERR_peek_error(), 0UL);
    EXPECT_EQ(pContext != nullptr, GetParam().pszOldCipher != nullptr);
    if (pContext != nullptr) {
        EXPECT_TRUE(CipherPtr(EVP_CIPHER_fetch(pContext, GetParam().pszOldCipher, nullptr)));
        EXPECT_EQ(ciphers.ContextFor(algorithm.get()), pContext) << "each part of a file gets a context of its own";
        EXPECT_EQ(ciphers.ContextFor(Pbes1By(kTripleDes).get()), nullptr);
    }
    EXPECT_FALSE(IsVisible());
}

INSTANTIATE_TEST_SUITE_P(
    , LegacyCiphersOf,
    testing::Values(Encryption{{"Rc2Of40Bits"}, Pbes1By, kRc2, "RC2-40-CBC"},
                    Encryption{{"Rc2Of128Bits"}, Pbes1By, NID_pbe_WithSHA1And128BitRC2_CBC, "RC2-CBC"},
                    Encryption{{"Rc4"}, Pbes1By, NID_pbe_WithSHA1And128BitRC4, "RC4"},
                    Encryption{{"Des"}, Pbes1By, NID_pbeWithMD5AndDES_CBC, "DES-CBC"},
                    Encryption{{"Pbes2Rc2"}, Pbes2By, NID_rc2_cbc, "RC2-CBC"},
                    Encryption{{"Pbes2Des"}, Pbes2By, NID_des_cbc, "DES-CBC"},
                    Encryption{{"TripleDes"}, Pbes1By, kTripleDes, nullptr},
                    Encryption{{"Pbes2Aes"}, Pbes2By, NID_aes_256_cbc, nullptr},
                    Encryption{{"NotAnEncryption"}, Pbes1By, NID_sha256, nullptr},
                    Encryption{{"Pbes2NotACipher"}, Pbes2By, NID_sha256, nullptr},
                    Encryption{{"Garbage"}, [](int /*nNumber*/) { return Garbage(); }, 0, nullptr}),
    RowName);

// ---- Files ----

// The key of a file with old ciphers belongs to the library context that every other key belongs to.
TEST(OldFiles, GiveKeysThatOutliveTheCiphers) {
    InitialiseOpenSsl();
    const SecretText pin = Secret(kOldFilePin);
    const KeyPtr other(EVP_EC_gen("P-256"));
    for (const int nKey : {kTripleDes, kRc2}) {
        const std::string strFile = OldFile(kRc2, nKey);
        const std::optional<StoreContent> content = ReadPkcs12(strFile, &pin);
        ASSERT_TRUE(content);
        ASSERT_EQ(content->keys.size(), 1U);
        EXPECT_EQ(EVP_PKEY_get0_provider(content->keys[0].get()), EVP_PKEY_get0_provider(other.get()));
        const Identities identities = ReadIdentities(strFile, &pin);
        ASSERT_EQ(identities.size(), 1U);
        ASSERT_NE(identities[0]->Key(), nullptr);
        EXPECT_TRUE(Signs(*identities[0]));
        EXPECT_FALSE(IsVisible());
    }
}

TEST(OldFiles, AreReadByManyThreadsAtOnce) {
    InitialiseOpenSsl();
    const std::string strFile = OldFile(kRc2, kRc2);
    constexpr size_t kThreads = 8;
    constexpr int kTimes = 5;
    std::array<int, kThreads> good{};
    {
        std::latch start(kThreads);
        std::vector<std::jthread> threads;
        for (int& cGood : good) {
            threads.emplace_back([&start, &strFile, &cGood] {
                const SecretText pin = Secret(kOldFilePin);
                start.arrive_and_wait();
                for (int n = 0; n < kTimes; ++n) {
                    const Identities identities = ReadIdentities(strFile, &pin);
                    cGood += identities.size() == 1 && Signs(*identities[0]) && !IsVisible() ? 1 : 0;
                }
            });
        }
    }
    EXPECT_EQ(std::count(good.begin(), good.end(), kTimes), static_cast<std::ptrdiff_t>(kThreads));
}

// OpenSSL looks for its modules in the directory that the variable names.
void ForgetModules(const TempDirectory& empty) {
    ASSERT_EQ(setenv("OPENSSL_MODULES", empty.Path().c_str(), 1), 0);
}

TEST(OldFiles, AreRefusedWithTheCureWhereTheModuleIsMissing) {
    const std::string strRc2 = OldFile(kRc2, kTripleDes);
    const std::string strRc2Key = OldFile(kTripleDes, kRc2);
    const std::string strTripleDes = OldFile(kTripleDes, kTripleDes);
    const TempDirectory empty;
    ExpectChildPasses([&] {
        ForgetModules(empty);
        const SecretText pin = Secret(kOldFilePin);
        for (const std::string& strFile : {strRc2, strRc2Key}) {
            try {
                ReadIdentities(strFile, &pin);
                ADD_FAILURE() << "it was read";
            } catch (const Failure& failure) {
                EXPECT_EQ(failure.Number(), VCTK_E_STORE_FORMAT);
                for (const char* pszPart :
                     {"RC2-40-CBC", "openssl-provider-legacy", "libssl3", "openssl pkcs12 -legacy"}) {
                    EXPECT_NE(failure.Detail().find(pszPart), std::string::npos) << failure.Detail();
                }
            }
        }
        EXPECT_EQ(ReadIdentities(strTripleDes, &pin).size(), 1U) << "triple DES needs no module";
    });
}

// The parent has used the ciphers, but the child does not depend on what is left of that.
TEST(OldFiles, AreReadInAForkedChild) {
    const std::string strFile = OldFile(kRc2, kRc2);
    const SecretText pin = Secret(kOldFilePin);
    const Identities ofParent = ReadIdentities(strFile, &pin);
    ASSERT_EQ(ofParent.size(), 1U);
    ExpectChildPasses([&] {
        EXPECT_TRUE(Signs(*ofParent[0]));
        const Identities identities = ReadIdentities(strFile, &pin);
        EXPECT_TRUE(identities.size() == 1 && Signs(*identities[0]));
    });
}

}  // namespace
}  // namespace vextk
