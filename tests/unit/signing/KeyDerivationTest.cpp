// Trying a file's PIN takes bounded work: iterations have a limit, and a MAC is computed once for each PIN.
#include "signing/KeyDerivation.h"

#include <gtest/gtest.h>
#include <openssl/pem.h>

#include <memory>
#include <string>

#include "MacCount.h"
#include "MemoryBio.h"
#include "Row.h"
#include "Secret.h"
#include "SelfSigned.h"
#include "Tlv.h"
#include "signing/Failure.h"
#include "signing/Store.h"

std::atomic<int> g_cMacs{0};

extern "C" int __real_PKCS12_verify_mac(PKCS12* pFile, const char* pszPin, int cchPin);

// The toolkit calls this function in this program.
extern "C" int __wrap_PKCS12_verify_mac(PKCS12* pFile, const char* pszPin, int cchPin) {
    ++g_cMacs;
    return __real_PKCS12_verify_mac(pFile, pszPin, cchPin);
}

namespace vextk {
namespace {

using namespace std::string_literals;

constexpr int kMost = static_cast<int>(DerivationWork::kMost);
constexpr const char* kPin = "1234";

using EncryptedPtr = std::unique_ptr<X509_SIG, Deleter<X509_SIG_free>>;

// The parameters of an encrypted key in a file. No test computes anything with them.
AlgorithmPtr Pbes2(int cIterations) {
    return AlgorithmPtr(PKCS5_pbe2_set_iv(EVP_aes_256_cbc(), cIterations, nullptr, 0, nullptr, NID_hmacWithSHA256));
}

AlgorithmPtr Pbes1(int cIterations) {
    return AlgorithmPtr(PKCS5_pbe_set(NID_pbe_WithSHA1And3_Key_TripleDES_CBC, cIterations, nullptr, 0));
}

AlgorithmPtr Rc2(int cIterations) {
    return AlgorithmPtr(PKCS5_pbe_set(NID_pbe_WithSHA1And40BitRC2_CBC, cIterations, nullptr, 0));
}

// PBKDF2 repeats all iterations for each block of a longer key.
AlgorithmPtr WithKeyLength(int cIterations, int cbKey) {
    const Pbe2Ptr both(PBE2PARAM_new());
    X509_ALGOR_free(both->keyfunc);
    both->keyfunc = PKCS5_pbkdf2_set(cIterations, nullptr, 0, NID_hmacWithSHA256, cbKey);
    X509_ALGOR_set0(both->encryption, OBJ_nid2obj(NID_aes_256_cbc), V_ASN1_UNDEF, nullptr);
    AlgorithmPtr algorithm(X509_ALGOR_new());
    X509_ALGOR_set0(algorithm.get(), OBJ_nid2obj(NID_pbes2), V_ASN1_SEQUENCE,
                    ASN1_item_pack(both.get(), ASN1_ITEM_rptr(PBE2PARAM), nullptr));
    return algorithm;
}

AlgorithmPtr LongestUsualKey(int cIterations) {
    return WithKeyLength(cIterations, 64);
}

AlgorithmPtr LongerKey(int cIterations) {
    return WithKeyLength(cIterations / 5, 5 * 16);
}

// N * r * p blocks.
constexpr int kScryptN = 128;
AlgorithmPtr Scrypt(int cBlocks) {
    const auto nParallel = static_cast<std::uint64_t>(cBlocks / kScryptN);
    return AlgorithmPtr(PKCS5_pbe2_set_scrypt(EVP_aes_256_cbc(), nullptr, 0, nullptr, kScryptN, 1, nParallel));
}

// Few rounds, and a salt that takes as long as kScryptN of them.
AlgorithmPtr ScryptWithLongSalt(int cBlocks) {
    const auto nParallel = static_cast<std::uint64_t>(cBlocks / kScryptN);
    std::string strSalt(std::size_t{32} * kScryptN, 's');
    return AlgorithmPtr(PKCS5_pbe2_set_scrypt(EVP_aes_256_cbc(), reinterpret_cast<unsigned char*>(strSalt.data()),
                                              static_cast<int>(strSalt.size()), nullptr, 2, 1, nParallel));
}

// Whether the encryption is refused as too much work, counted together with those before it in the file.
bool IsTooMuch(DerivationWork& work, const X509_ALGOR* pAlgorithm) {
    try {
        work.Add(pAlgorithm);
        return false;
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.Number(), VCTK_E_STORE_UNREADABLE);
        EXPECT_NE(failure.Detail().find("iterations"), std::string::npos) << failure.Detail();
        return true;
    }
}

struct Algorithm : Row {
    AlgorithmPtr (*pfnMake)(int cIterations);
    int nStep = 1;
};

class DerivationLimit : public testing::TestWithParam<Algorithm> {};

TEST_P(DerivationLimit, IsTenMillion) {
    for (const int nBelow : {kMost - GetParam().nStep, kMost}) {
        DerivationWork work;
        EXPECT_FALSE(IsTooMuch(work, GetParam().pfnMake(nBelow).get())) << nBelow;
    }
    DerivationWork work;
    EXPECT_TRUE(IsTooMuch(work, GetParam().pfnMake(kMost + GetParam().nStep).get()));
    EXPECT_FALSE(IsTooMuch(work, GetParam().pfnMake(GetParam().nStep).get())) << "refused work was counted";
}

INSTANTIATE_TEST_SUITE_P(, DerivationLimit,
                         testing::Values(Algorithm{"Pbes2", Pbes2}, Algorithm{"Pbes1", Pbes1}, Algorithm{"Rc2", Rc2},
                                         Algorithm{"LongestUsualKey", LongestUsualKey},
                                         Algorithm{"LongerKey", LongerKey, 5}, Algorithm{"Scrypt", Scrypt, kScryptN},
                                         Algorithm{"ScryptWithLongSalt", ScryptWithLongSalt, kScryptN}),
                         RowName);

TEST(DerivationWorkTest, OfAFileIsBoundedAsWell) {
    DerivationWork work;
    const AlgorithmPtr most = Pbes2(kMost);
    for (std::uint64_t n = 0; n < DerivationWork::kMostOfFile; n += DerivationWork::kMost) {
        EXPECT_FALSE(IsTooMuch(work, most.get())) << n;
    }
    EXPECT_TRUE(IsTooMuch(work, Pbes2(1).get()));
}

// ---- Odd parameters ----

// PBES2 with this function, as it stands in a file.
const std::string kAes = "\x06\x09\x60\x86\x48\x01\x65\x03\x04\x01\x2A";
AlgorithmPtr Pbes2With(const std::string& strFunction, const std::string& strParameters,
                       const std::string& strCipher = kAes) {
    const std::string strEncryption = Tlv(0x30, strCipher + Tlv(0x04, std::string(16, 'v')));
    const std::string strDer = Tlv(0x30, "\x06\x09\x2A\x86\x48\x86\xF7\x0D\x01\x05\x0D"s +
                                             Tlv(0x30, Tlv(0x30, strFunction + strParameters) + strEncryption));
    const auto* pb = reinterpret_cast<const unsigned char*>(strDer.data());
    return AlgorithmPtr(d2i_X509_ALGOR(nullptr, &pb, static_cast<long>(strDer.size())));
}

const std::string kPbkdf2 = "\x06\x09\x2A\x86\x48\x86\xF7\x0D\x01\x05\x0C";
const std::string kScrypt = "\x06\x09\x2B\x06\x01\x04\x01\xDA\x47\x04\x0B";
const std::string kUnknown = "\x06\x03\x2A\x03\x04";
const std::string kOdd = Tlv(0x30, "\x02");  // OpenSSL refuses it later

std::string Integer(const std::string& strBytes) {
    return Tlv(0x02, strBytes);
}

struct OddParameters : Row {
    AlgorithmPtr (*pfnMake)();
    bool bTooMuch;
};

class OddDerivation : public testing::TestWithParam<OddParameters> {};

TEST_P(OddDerivation, IsCountedAsWhatItCouldCost) {
    const AlgorithmPtr algorithm = GetParam().pfnMake();
    ASSERT_TRUE(algorithm);
    DerivationWork work;
    EXPECT_EQ(IsTooMuch(work, algorithm.get()), GetParam().bTooMuch);
}

std::string Pbkdf2Of(const std::string& strIterations, const std::string& strKeyLength = "") {
    return Tlv(0x30, Tlv(0x04, "salt") + Integer(strIterations) + strKeyLength);
}
std::string ScryptOf(const std::string& strCost, const std::string& strBlock) {
    return Tlv(0x30, Tlv(0x04, "salt") + Integer(strCost) + Integer(strBlock) + Integer("\x01"));
}
const std::string kLarge = "\x7F" + std::string(7, 'x');

INSTANTIATE_TEST_SUITE_P(
    , OddDerivation,
    testing::Values(
        OddParameters{"Pbkdf2", [] { return Pbes2With(kPbkdf2, Pbkdf2Of("\x01")); }, false},
        OddParameters{"NoNumber", [] { return Pbes2With(kPbkdf2, Pbkdf2Of(kLarge + "xxx")); }, true},
        OddParameters{"NegativeNumber", [] { return Pbes2With(kPbkdf2, Pbkdf2Of("\xFF")); }, true},
        OddParameters{"LongestUsefulKey", [] { return Pbes2With(kPbkdf2, Pbkdf2Of("\x0F\x42\x40", Integer("\x40"))); },
                      false},
        OddParameters{"LongKey",
                      [] { return Pbes2With(kPbkdf2, Pbkdf2Of("\x0F\x42\x40", Integer("\x01\x00"s + "x"))); }, true},
        OddParameters{"GarbageForPbkdf2", [] { return Pbes2With(kPbkdf2, kOdd); }, false},
        OddParameters{"NothingForPbkdf2", [] { return Pbes2With(kPbkdf2, ""); }, false},
        OddParameters{"GarbageForScrypt", [] { return Pbes2With(kScrypt, kOdd); }, false},
        OddParameters{"ScryptBeyondAllNumbers", [] { return Pbes2With(kScrypt, ScryptOf(kLarge, kLarge)); }, true},
        OddParameters{"ScryptOfZero", [] { return Pbes2With(kScrypt, ScryptOf("\x00"s, kLarge)); }, false},
        OddParameters{"GarbageForPbes2",
                      [] {
                          AlgorithmPtr algorithm = Pbes2(1);
                          ASN1_STRING_set(algorithm->parameter->value.sequence, kOdd.data(),
                                          static_cast<int>(kOdd.size()));
                          return algorithm;
                      },
                      false},
        OddParameters{"GarbageForPbes1",
                      [] {
                          AlgorithmPtr algorithm = Pbes1(1);
                          ASN1_STRING_set(algorithm->parameter->value.sequence, kOdd.data(),
                                          static_cast<int>(kOdd.size()));
                          return algorithm;
                      },
                      false}),
    RowName);

// ---- Files ----

// A key that is encrypted with one iteration. The file says that its parameters are pSays.
EncryptedPtr EncryptedKey(const EVP_PKEY* pKey, const X509_ALGOR* pSays) {
    const std::unique_ptr<PKCS8_PRIV_KEY_INFO, Deleter<PKCS8_PRIV_KEY_INFO_free>> info(EVP_PKEY2PKCS8(pKey));
    EncryptedPtr encrypted(PKCS8_encrypt(-1, EVP_aes_256_cbc(), kPin, -1, nullptr, 0, 1, info.get()));
    X509_ALGOR* pAlgorithm = nullptr;
    X509_SIG_getm(encrypted.get(), &pAlgorithm, nullptr);
    X509_ALGOR_copy(pAlgorithm, pSays);
    return encrypted;
}

template <typename T>
std::string Der(int (*encode)(BIO*, const T*), const T* pObject) {
    const BioPtr bio(BIO_new(BIO_s_mem()));
    encode(bio.get(), pObject);
    return MemoryBioText(bio.get());
}

std::string Pem(const SelfSigned& parts, const X509_SIG* pKey) {
    const BioPtr bio(BIO_new(BIO_s_mem()));
    PEM_write_bio_X509(bio.get(), parts.certificate.get());
    PEM_write_bio_PKCS8(bio.get(), pKey);
    return MemoryBioText(bio.get());
}

// fEncryptedBag: the certificate has the parameters. Otherwise the key has them.
std::string Pkcs12WithoutMac(const SelfSigned& parts, const X509_ALGOR* pSays, bool fCertificate) {
    STACK_OF(PKCS12_SAFEBAG)* pBags = nullptr;
    PKCS12_add_cert(&pBags, parts.certificate.get());
    STACK_OF(PKCS7)* pSafes = nullptr;
    PKCS12_add_safe(&pSafes, pBags, NID_aes_256_cbc, 1, kPin);
    if (fCertificate) {
        X509_ALGOR_copy(sk_PKCS7_value(pSafes, 0)->d.encrypted->enc_data->algorithm, pSays);
    }
    sk_PKCS12_SAFEBAG_pop_free(pBags, PKCS12_SAFEBAG_free);
    pBags = sk_PKCS12_SAFEBAG_new_null();
    const AlgorithmPtr one = Pbes2(1);
    sk_PKCS12_SAFEBAG_push(
        pBags, PKCS12_SAFEBAG_create0_pkcs8(EncryptedKey(parts.key.get(), fCertificate ? one.get() : pSays).release()));
    PKCS12_add_safe(&pSafes, pBags, -1, 0, nullptr);
    const Pkcs12Ptr file(PKCS12_add_safes(pSafes, 0));
    sk_PKCS12_SAFEBAG_pop_free(pBags, PKCS12_SAFEBAG_free);
    sk_PKCS7_pop_free(pSafes, PKCS7_free);
    return Der(i2d_PKCS12_bio, file.get());
}

// cMacIterations: 0 keeps the number that the file has.
std::string Pkcs12WithMac(const SelfSigned& parts, const char* pszPin, int cMacIterations = 0) {
    const Pkcs12Ptr file(
        PKCS12_create(pszPin, nullptr, parts.key.get(), parts.certificate.get(), nullptr, 0, 0, 1, 2, 0));
    if (cMacIterations != 0) {
        const ASN1_INTEGER* pIterations = nullptr;
        PKCS12_get0_mac(nullptr, nullptr, nullptr, &pIterations, file.get());
        ASN1_INTEGER_set(const_cast<ASN1_INTEGER*>(pIterations), cMacIterations);
    }
    return Der(i2d_PKCS12_bio, file.get());
}

struct ExpensiveFile : Row {
    std::string (*pfnMake)(const SelfSigned& parts);
};

class Expensive : public testing::TestWithParam<ExpensiveFile> {};

TEST_P(Expensive, IsRefusedAtOnce) {
    InitialiseOpenSsl();
    const std::string strFile = GetParam().pfnMake(SelfSigned());
    ASSERT_FALSE(strFile.empty());
    g_cMacs = 0;
    const SecretText pin = Secret(kPin);
    try {
        ReadIdentities(strFile, &pin);
        ADD_FAILURE() << "it was read";
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.Number(), VCTK_E_STORE_UNREADABLE) << failure.Detail();
    }
    EXPECT_EQ(g_cMacs, 0);
}

INSTANTIATE_TEST_SUITE_P(
    , Expensive,
    testing::Values(
        ExpensiveFile{"Mac", [](const SelfSigned& parts) { return Pkcs12WithMac(parts, kPin, kMost + 1); }},
        ExpensiveFile{"Bag", [](const SelfSigned& p) { return Pkcs12WithoutMac(p, Pbes2(kMost + 1).get(), false); }},
        ExpensiveFile{"Safe", [](const SelfSigned& p) { return Pkcs12WithoutMac(p, Pbes2(kMost + 1).get(), true); }},
        ExpensiveFile{"OldSafe", [](const SelfSigned& p) { return Pkcs12WithoutMac(p, Rc2(kMost + 1).get(), true); }},
        ExpensiveFile{"OldBag", [](const SelfSigned& p) { return Pkcs12WithoutMac(p, Pbes1(kMost + 1).get(), false); }},
        ExpensiveFile{
            "Pem", [](const SelfSigned& p) { return Pem(p, EncryptedKey(p.key.get(), Pbes2(kMost + 1).get()).get()); }},
        ExpensiveFile{"PemScrypt",
                      [](const SelfSigned& p) {
                          return Pem(p, EncryptedKey(p.key.get(), Scrypt(kMost + kScryptN).get()).get());
                      }}),
    RowName);

// ---- Unusable parameters, with the right PIN ----

AlgorithmPtr WithGarbage() {
    AlgorithmPtr algorithm = Pbes2(1);
    ASN1_STRING_set(algorithm->parameter->value.sequence, "\x30\x01\x02", 3);
    return algorithm;
}

using ScryptPtr = std::unique_ptr<SCRYPT_PARAMS, Deleter<SCRYPT_PARAMS_free>>;

Pbe2Ptr Unpacked(const X509_ALGOR* pAlgorithm) {
    return Pbe2Ptr(
        static_cast<PBE2PARAM*>(ASN1_TYPE_unpack_sequence(ASN1_ITEM_rptr(PBE2PARAM), pAlgorithm->parameter)));
}

AlgorithmPtr WithoutInitialVector() {
    AlgorithmPtr algorithm = Pbes2(1);
    const Pbe2Ptr both = Unpacked(algorithm.get());
    ASN1_TYPE_set(both->encryption->parameter, V_ASN1_NULL, nullptr);
    ASN1_TYPE_pack_sequence(ASN1_ITEM_rptr(PBE2PARAM), both.get(), &algorithm->parameter);
    return algorithm;
}

AlgorithmPtr ScryptOfThree() {
    AlgorithmPtr algorithm = Scrypt(kScryptN);
    const Pbe2Ptr both = Unpacked(algorithm.get());
    const ScryptPtr scrypt(static_cast<SCRYPT_PARAMS*>(
        ASN1_TYPE_unpack_sequence(ASN1_ITEM_rptr(SCRYPT_PARAMS), both->keyfunc->parameter)));
    ASN1_INTEGER_set(scrypt->costParameter, 3);  // not a power of two
    ASN1_TYPE_pack_sequence(ASN1_ITEM_rptr(SCRYPT_PARAMS), scrypt.get(), &both->keyfunc->parameter);
    ASN1_TYPE_pack_sequence(ASN1_ITEM_rptr(PBE2PARAM), both.get(), &algorithm->parameter);
    return algorithm;
}

struct Unusable : Row {
    AlgorithmPtr (*pfnMake)();
    const char* pszReason = "the parameters of its encryption cannot be used";
};

class UnusableParameters : public testing::TestWithParam<Unusable> {};

TEST_P(UnusableParameters, AreNotReportedAsAWrongPin) {
    InitialiseOpenSsl();
    const SelfSigned parts;
    const SecretText pin = Secret(kPin);
    const AlgorithmPtr algorithm = GetParam().pfnMake();
    for (const std::string& strFile : {Pem(parts, EncryptedKey(parts.key.get(), algorithm.get()).get()),
                                       Pkcs12WithoutMac(parts, algorithm.get(), false)}) {
        try {
            ReadIdentities(strFile, &pin);
            ADD_FAILURE() << "it was read";
        } catch (const Failure& failure) {
            EXPECT_EQ(failure.Number(), VCTK_E_STORE_FORMAT) << failure.Detail();
            EXPECT_EQ(failure.Detail(), GetParam().pszReason);
        }
    }
}

constexpr const char* kNotOffered = "it is encrypted in a way that OpenSSL does not offer";

INSTANTIATE_TEST_SUITE_P(
    , UnusableParameters,
    testing::Values(
        Unusable{"Garbage", WithGarbage}, Unusable{"NoVector", WithoutInitialVector}, Unusable{"Scrypt", ScryptOfThree},
        Unusable{"UnknownFunction", [] { return Pbes2With(kUnknown, ""); }, kNotOffered},
        Unusable{"UnknownCipher", [] { return Pbes2With(kPbkdf2, Pbkdf2Of("\x01"), kUnknown); }, kNotOffered},
        Unusable{"UnknownPrf", [] { return Pbes2With(kPbkdf2, Pbkdf2Of("\x01", Tlv(0x30, kUnknown))); }, kNotOffered},
        Unusable{"Unknown",
                 [] {
                     AlgorithmPtr algorithm(X509_ALGOR_new());
                     X509_ALGOR_set0(algorithm.get(), OBJ_txt2obj("1.2.3.4", 1), V_ASN1_NULL, nullptr);
                     return algorithm;
                 },
                 kNotOffered}),
    RowName);

struct Macs : Row {
    const char* pszFilePin;
    const char* pszPin;  // null: none is given
    int cComputed;
    int nError;
};

class MacsComputed : public testing::TestWithParam<Macs> {};

TEST_P(MacsComputed, AreOneForEachTriedPin) {
    InitialiseOpenSsl();
    const Macs& macs = GetParam();
    const std::string strFile = Pkcs12WithMac(SelfSigned(), macs.pszFilePin);
    const SecretText pin = Secret(macs.pszPin != nullptr ? macs.pszPin : "");
    g_cMacs = 0;
    int nError = VCTK_OK;
    try {
        EXPECT_EQ(ReadIdentities(strFile, macs.pszPin != nullptr ? &pin : nullptr).size(), 1U);
    } catch (const Failure& failure) {
        nError = failure.Number();
    }
    EXPECT_EQ(nError, macs.nError);
    EXPECT_EQ(g_cMacs, macs.cComputed);
}

// Without a PIN, the toolkit tries the empty PIN and no PIN: they encrypt in different ways.
INSTANTIATE_TEST_SUITE_P(, MacsComputed,
                         testing::Values(Macs{"RightPin", kPin, kPin, 1, VCTK_OK},
                                         Macs{"WrongPin", kPin, "123", 1, VCTK_E_PIN_WRONG},
                                         Macs{"EmptyPin", "", nullptr, 1, VCTK_OK},
                                         Macs{"NoPinInTheFile", nullptr, "", 2, VCTK_OK},
                                         Macs{"NoPinGiven", kPin, nullptr, 2, VCTK_E_PIN_REQUIRED}),
                         RowName);

// ---- The MAC of RFC 9579 ----

// A file that begins a check of its MAC, whose key is derived with these parameters of PBKDF2.
std::string Pkcs12WithPbmac1(const std::string& strSalt, const std::string& strKeyLength) {
    const std::string strHmac = Tlv(0x30, "\x06\x08\x2A\x86\x48\x86\xF7\x0D\x02\x09\x05\x00"s);
    const std::string strPbkdf2 = Tlv(0x30, "\x06\x09\x2A\x86\x48\x86\xF7\x0D\x01\x05\x0C"s +
                                                Tlv(0x30, strSalt + Tlv(0x02, "\x01") + strKeyLength + strHmac));
    const std::string strPbmac1 =
        Tlv(0x30, "\x06\x09\x2A\x86\x48\x86\xF7\x0D\x01\x05\x0E"s + Tlv(0x30, strPbkdf2 + strHmac));
    const std::string strMac =
        Tlv(0x30, Tlv(0x30, strPbmac1 + Tlv(0x04, std::string(32, 'm'))) + Tlv(0x04, "salt") + Tlv(0x02, "\x01"));
    const std::string strContent =
        Tlv(0x30, "\x06\x09\x2A\x86\x48\x86\xF7\x0D\x01\x07\x01"s + Tlv(0xA0, Tlv(0x04, Tlv(0x30, ""))));
    return Tlv(0x30, "\x02\x01\x03"s + strContent + strMac);
}

struct Pbmac1 : Row {
    std::string strSalt;
    std::string strKeyLength;
    int cMacs;  // how many are computed
};

class MacParameters : public testing::TestWithParam<Pbmac1> {};

TEST_P(MacParameters, ThatOpenSslDoesNotCheckAreRefused) {
    InitialiseOpenSsl();
    g_cMacs = 0;
    const SecretText pin = Secret(kPin);
    try {
        ReadIdentities(Pkcs12WithPbmac1(GetParam().strSalt, GetParam().strKeyLength), &pin);
        ADD_FAILURE() << "it was read";
    } catch (const Failure& failure) {
        const bool bRefused = failure.Detail() == "the parameters of its check sum (MAC) cannot be used";
        EXPECT_EQ(bRefused, GetParam().cMacs == 0) << failure.Detail();
    }
    EXPECT_EQ(g_cMacs, GetParam().cMacs);
}

const std::string kSalt = Tlv(0x04, "salt");

INSTANTIATE_TEST_SUITE_P(, MacParameters,
                         testing::Values(Pbmac1{"Usual", kSalt, Tlv(0x02, "\x20"), 1},
                                         Pbmac1{"LongestKey", kSalt, Tlv(0x02, "\x40"), 1},
                                         Pbmac1{"KeyTooLong", kSalt, Tlv(0x02, "\x41"), 0},
                                         Pbmac1{"HugeKey", kSalt, Tlv(0x02, "\x7F\xFF\xFF\xFF\xFF"), 0},
                                         Pbmac1{"NegativeKey", kSalt, Tlv(0x02, "\xFF"), 0},
                                         Pbmac1{"NoKeyLength", kSalt, "", 0},
                                         Pbmac1{"SaltOfAnotherType", Tlv(0x30, ""), Tlv(0x02, "\x20"), 0}),
                         RowName);

}  // namespace
}  // namespace vextk
