// PKCS #12 files of the kinds that other programs write.
#include <gtest/gtest.h>

#include <openssl/pkcs12.h>

#include <ctime>
#include <memory>
#include <string>

#include "Pkcs12Bytes.h"
#include "Row.h"
#include "Secret.h"
#include "SelfSigned.h"
#include "Tlv.h"
#include "signing/Failure.h"
#include "signing/Store.h"
#include "signing/StoreContent.h"

namespace vextk {
namespace {

// The bytes of a file with one key and its certificate.
std::string MakePkcs12(const char* pszPin, int nEncryption) {
    const SelfSigned pair;
    const Pkcs12Ptr file(PKCS12_create(pszPin, nullptr, pair.key.get(), pair.certificate.get(), nullptr, nEncryption,
                                       nEncryption, 0, 0, 0));
    return BytesOf(file.get());
}

// A file with a PIN and a MAC. The test chooses the other parts.
class Pkcs12File {
public:
    Pkcs12File() {
        const SelfSigned pair;
        AddKey(KeyInfoPtr(EVP_PKEY2PKCS8(pair.key.get())));
        PKCS12_add_cert(&m_pBags, pair.certificate.get());
    }
    ~Pkcs12File() { sk_PKCS12_SAFEBAG_pop_free(m_pBags, PKCS12_SAFEBAG_free); }
    Pkcs12File(const Pkcs12File&) = delete;
    Pkcs12File& operator=(const Pkcs12File&) = delete;

    using NameBag = void (*)(PKCS12_SAFEBAG*);
    // Another key and its certificate.
    void AddPair(NameBag certificateName, NameBag keyName) {
        const SelfSigned pair;
        AddKey(KeyInfoPtr(EVP_PKEY2PKCS8(pair.key.get())));
        NameLastBag(keyName);
        PKCS12_add_cert(&m_pBags, pair.certificate.get());
        NameLastBag(certificateName);
    }

    // A key with malformed bytes. pszCurve: the parameter, if it is not null.
    void AddKey(const char* pszOid, const char* pszCurve = nullptr) {
        KeyInfoPtr info(PKCS8_PRIV_KEY_INFO_new());
        auto* const pbBytes = static_cast<unsigned char*>(OPENSSL_zalloc(4));
        PKCS8_pkey_set0(info.get(), OBJ_txt2obj(pszOid, 1), 0, pszCurve != nullptr ? V_ASN1_OBJECT : V_ASN1_UNDEF,
                        pszCurve != nullptr ? OBJ_txt2obj(pszCurve, 1) : nullptr, pbBytes, 4);
        AddKey(std::move(info));
    }

    // Another key and its certificate. The key has a PIN of its own.
    void AddPairWithPin(const char* pszPin) {
        const SelfSigned pair;
        sk_PKCS12_SAFEBAG_push(m_pBags,
                               PKCS12_SAFEBAG_create_pkcs8_encrypt(NID_aes_256_cbc, pszPin, -1, nullptr, 0, 1,
                                                                   KeyInfoPtr(EVP_PKEY2PKCS8(pair.key.get())).get()));
        PKCS12_add_cert(&m_pBags, pair.certificate.get());
    }

    void AddWhatIsNoCertificate() {
        const std::unique_ptr<ASN1_INTEGER, Deleter<ASN1_INTEGER_free>> number(ASN1_INTEGER_new());
        sk_PKCS12_SAFEBAG_push(m_pBags, PKCS12_item_pack_safebag(number.get(), ASN1_ITEM_rptr(ASN1_INTEGER),
                                                                 NID_x509Certificate, NID_certBag));
    }

    // The bags that are not needed to sign: another kind of certificate, and a secret.
    void AddWhatIsPassedOver() {
        const std::unique_ptr<ASN1_OCTET_STRING, Deleter<ASN1_OCTET_STRING_free>> text(ASN1_OCTET_STRING_new());
        sk_PKCS12_SAFEBAG_push(m_pBags, PKCS12_item_pack_safebag(text.get(), ASN1_ITEM_rptr(ASN1_OCTET_STRING),
                                                                 NID_sdsiCertificate, NID_certBag));
        constexpr unsigned char kSecret[] = {'s'};
        sk_PKCS12_SAFEBAG_push(
            m_pBags, PKCS12_SAFEBAG_create_secret(NID_rsaEncryption, V_ASN1_OCTET_STRING, kSecret, sizeof kSecret));
    }

    // Puts all bags into a bag, which is in a bag.
    void NestBags() {
        for (int i = 0; i < 2; ++i) {
            unsigned char* pbBags = nullptr;
            const int cbBags =
                ASN1_item_i2d(reinterpret_cast<const ASN1_VALUE*>(m_pBags), &pbBags, ASN1_ITEM_rptr(PKCS12_SAFEBAGS));
            const MemoryPtr<unsigned char> owner(pbBags);
            const std::string strBags(reinterpret_cast<const char*>(pbBags), static_cast<size_t>(cbBags));
            // safeContentsBag, RFC 7292 section 4.2.6.
            const std::string strBag =
                Tlv(0x30, "\x06\x0B\x2A\x86\x48\x86\xF7\x0D\x01\x0C\x0A\x01\x06" + Tlv(0xA0, strBags));
            const auto* pbBag = reinterpret_cast<const unsigned char*>(strBag.data());
            PKCS12_SAFEBAG* const pBag = d2i_PKCS12_SAFEBAG(nullptr, &pbBag, static_cast<long>(strBag.size()));
            sk_PKCS12_SAFEBAG_pop_free(m_pBags, PKCS12_SAFEBAG_free);
            m_pBags = sk_PKCS12_SAFEBAG_new_null();
            sk_PKCS12_SAFEBAG_push(m_pBags, pBag);
        }
    }

    // With bDamaged, the encrypted part was damaged before the MAC was made.
    std::string Bytes(bool bDamaged = false) {
        STACK_OF(PKCS7)* pSafes = nullptr;
        PKCS12_add_safe(&pSafes, m_pBags, NID_aes_256_cbc, 1, kPin);
        if (bDamaged) {
            CutEncryption(*sk_PKCS7_value(pSafes, 0));
        }
        return BytesOf(pSafes, kPin);
    }

    static constexpr const char* kPin = "1234";

private:
    void AddKey(KeyInfoPtr info) { sk_PKCS12_SAFEBAG_push(m_pBags, PKCS12_SAFEBAG_create0_p8inf(info.release())); }

    void NameLastBag(NameBag name) {
        if (name != nullptr) {
            name(sk_PKCS12_SAFEBAG_value(m_pBags, sk_PKCS12_SAFEBAG_num(m_pBags) - 1));
        }
    }

    STACK_OF(PKCS12_SAFEBAG) * m_pBags = sk_PKCS12_SAFEBAG_new_null();
};

Identities ReadWithPin(Pkcs12File& file, const char* pszPin) {
    const SecretText pin = Secret(pszPin);
    return ReadIdentities(file.Bytes(), &pin);
}

VCTKError ErrorOf(Pkcs12File& file, const char* pszPin) {
    try {
        ReadWithPin(file, pszPin);
        return VCTK_OK;
    } catch (const Failure& failure) {
        return failure.Number();
    }
}

// A key of an algorithm that OpenSSL does not know, and a malformed certificate. The PIN is right nevertheless.
TEST(Pkcs12, PartsThatCannotBeUsedArePassedOver) {
    Pkcs12File file;
    file.AddKey("1.2.3.4");
    file.AddWhatIsNoCertificate();
    const Identities identities = ReadWithPin(file, Pkcs12File::kPin);
    ASSERT_EQ(identities.size(), 2U);
    EXPECT_EQ(identities[0]->FlawAt(std::time(nullptr)), Flaw::kNone);
    EXPECT_EQ(identities[1]->FlawAt(std::time(nullptr)), Flaw::kDamaged);
    EXPECT_EQ(ErrorOf(file, "123"), VCTK_E_PIN_WRONG);
}

TEST(Pkcs12, BagsThatAreNotNeededToSignArePassedOver) {
    Pkcs12File file;
    file.AddWhatIsPassedOver();
    const Identities identities = ReadWithPin(file, Pkcs12File::kPin);
    ASSERT_EQ(identities.size(), 1U);
    EXPECT_EQ(identities[0]->FlawAt(std::time(nullptr)), Flaw::kNone);
}

TEST(Pkcs12, BagsInBagsAreRead) {
    Pkcs12File file;
    file.NestBags();
    const Identities identities = ReadWithPin(file, Pkcs12File::kPin);
    ASSERT_EQ(identities.size(), 1U);
    EXPECT_NE(identities[0]->Key(), nullptr);
}

// Java's KeyStore can give each key a PIN of its own.
TEST(Pkcs12, APartThatCannotBeDecryptedIsNotReportedAsAWrongPinWhereTheMacIsRight) {
    const SecretText pin = Secret(Pkcs12File::kPin);
    Pkcs12File twoPins;
    twoPins.AddPairWithPin("5678");
    for (const std::string& strFile : {Pkcs12File().Bytes(true), twoPins.Bytes()}) {
        try {
            ReadIdentities(strFile, &pin);
            ADD_FAILURE() << "it was read";
        } catch (const Failure& failure) {
            EXPECT_EQ(failure.Number(), VCTK_E_STORE_FORMAT);
            EXPECT_EQ(failure.Detail(), "an encrypted part of it is damaged or has another PIN than the file");
        }
    }
}

// The MAC takes the PIN as UTF-16, for which OpenSSL also reads Latin-1. PBES2 takes its bytes as they are.
TEST(Pkcs12, APinInAnotherEncodingIsNamedAsAPossibleCause) {
    const std::string strFile = MakePkcs12("gr\xC3\xBCn", NID_aes_256_cbc);
    const SecretText utf8 = Secret("gr\xC3\xBCn");
    EXPECT_EQ(ReadIdentities(strFile, &utf8).size(), 1U);
    const SecretText latin1 = Secret("gr\xFCn");
    try {
        ReadIdentities(strFile, &latin1);
        ADD_FAILURE() << "it was read";
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.Number(), VCTK_E_STORE_FORMAT);
        EXPECT_EQ(failure.Detail(),
                  "an encrypted part of it is damaged or has another PIN than the file; or the PIN is in another "
                  "character encoding than when the file was made, usually UTF-8");
    }
}

struct Unreadable : Row {
    const char* pszOid;
    const char* pszCurve;  // null: none
    bool bDamaged;         // false: nobody could have read it
};

class UnreadableKey : public testing::TestWithParam<Unreadable> {};

TEST_P(UnreadableKey, IsDamagedOnlyIfItsKindIsKnown) {
    Pkcs12File file;
    file.AddKey(GetParam().pszOid, GetParam().pszCurve);
    EXPECT_EQ(ErrorOf(file, Pkcs12File::kPin), GetParam().bDamaged ? VCTK_E_STORE_FORMAT : VCTK_OK);
    EXPECT_EQ(ErrorOf(file, "123"), VCTK_E_PIN_WRONG);
}

constexpr const char* kEcKey = "1.2.840.10045.2.1";

INSTANTIATE_TEST_SUITE_P(, UnreadableKey,
                         testing::Values(Unreadable{"Rsa", "1.2.840.113549.1.1.1", nullptr, true},
                                         Unreadable{"RsaPss", "1.2.840.113549.1.1.10", nullptr, true},
                                         Unreadable{"Ed25519", "1.3.101.112", nullptr, true},
                                         Unreadable{"Ed448", "1.3.101.113", nullptr, true},
                                         Unreadable{"EcWithoutCurve", kEcKey, nullptr, true},
                                         Unreadable{"EcOnP256", kEcKey, "1.2.840.10045.3.1.7", true},
                                         Unreadable{"EcOnAnUnknownCurve", kEcKey, "1.2.3.4", false},
                                         Unreadable{"Unknown", "1.2.3.4", nullptr, false},
                                         Unreadable{"UnknownWithParameter", "1.2.3.4", "1.2.3.5", false}),
                         RowName);

struct Named : Row {
    Pkcs12File::NameBag certificate;
    Pkcs12File::NameBag key;
    const char* pszName;
};

class NamesInPkcs12 : public testing::TestWithParam<Named> {};

TEST_P(NamesInPkcs12, AreTheFriendlyNames) {
    Pkcs12File file;
    file.AddPair(GetParam().certificate, GetParam().key);
    const Identities identities = ReadWithPin(file, Pkcs12File::kPin);
    ASSERT_EQ(identities.size(), 2U);
    EXPECT_EQ(identities[0]->Name(), "");
    EXPECT_EQ(identities[1]->Name(), GetParam().pszName);
    EXPECT_NE(identities[1]->Key(), nullptr);
}

constexpr Pkcs12File::NameBag kUnnamed = nullptr;
void NameBo(PKCS12_SAFEBAG* pBag) {
    constexpr unsigned char kText[] = {0, 'B', 0, 0xD6, 0, ' ', 0xD8, 0x3E, 0xDD, 0x8A};
    PKCS12_add_friendlyname_uni(pBag, kText, sizeof kText);
}
void NameAnna(PKCS12_SAFEBAG* pBag) {
    PKCS12_add_friendlyname_utf8(pBag, "Anna", -1);
}
void NameWithHalfAPair(PKCS12_SAFEBAG* pBag) {
    constexpr unsigned char kHalf[] = {0, 'a', 0xD8, 0x3E};
    PKCS12_add_friendlyname_uni(pBag, kHalf, sizeof kHalf);
}
void NameWithAnotherType(PKCS12_SAFEBAG* pBag) {
    constexpr unsigned char kText[] = {'a', 'b'};
    PKCS12_add1_attr_by_NID(pBag, NID_friendlyName, V_ASN1_OCTET_STRING, kText, sizeof kText);
}

INSTANTIATE_TEST_SUITE_P(All, NamesInPkcs12,
                         testing::Values(Named{"None", kUnnamed, kUnnamed, ""},
                                         Named{"Certificates", NameBo, kUnnamed, "B\xC3\x96 \xF0\x9F\xA6\x8A"},
                                         Named{"Keys", kUnnamed, NameAnna, "Anna"},
                                         Named{"CertificatesFirst", NameBo, NameAnna, "B\xC3\x96 \xF0\x9F\xA6\x8A"},
                                         Named{"HalfAPair", NameWithHalfAPair, NameAnna, "Anna"},
                                         Named{"AnotherType", NameWithAnotherType, kUnnamed, ""}),
                         RowName);

// A file without a MAC, so that any program may have damaged it.
std::string WithDamagedSafe(void (*pfnDamage)(PKCS7& safe)) {
    const SelfSigned pair;
    STACK_OF(PKCS12_SAFEBAG)* pBags = nullptr;
    PKCS12_add_cert(&pBags, pair.certificate.get());
    STACK_OF(PKCS7)* pSafes = nullptr;
    PKCS12_add_safe(&pSafes, pBags, NID_aes_256_cbc, 1, Pkcs12File::kPin);
    pfnDamage(*sk_PKCS7_value(pSafes, 0));
    sk_PKCS12_SAFEBAG_pop_free(pBags, PKCS12_SAFEBAG_free);
    return BytesOf(pSafes, nullptr);
}

struct Damage : Row {
    void (*pfnDamage)(PKCS7& safe);
};

class DamagedPkcs12 : public testing::TestWithParam<Damage> {};

TEST_P(DamagedPkcs12, IsReportedAsDamaged) {
    const std::string strFile = WithDamagedSafe(GetParam().pfnDamage);
    ASSERT_FALSE(strFile.empty());
    try {
        ReadIdentities(strFile, nullptr);
        ADD_FAILURE() << "it was read";
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.Number(), VCTK_E_STORE_FORMAT);
        EXPECT_NE(failure.Detail().find("damaged"), std::string::npos) << failure.Detail();
    }
}

INSTANTIATE_TEST_SUITE_P(, DamagedPkcs12,
                         testing::Values(Damage{"NothingIsEncrypted",
                                                [](PKCS7& safe) {
                                                    ASN1_OCTET_STRING_free(safe.d.encrypted->enc_data->enc_data);
                                                    safe.d.encrypted->enc_data->enc_data = nullptr;
                                                }},
                                         Damage{"NoContent",
                                                [](PKCS7& safe) {
                                                    PKCS7_ENCRYPT_free(safe.d.encrypted);
                                                    safe.d.encrypted = nullptr;
                                                }}),
                         RowName);

const std::string kData = Tlv(0x06, "\x2A\x86\x48\x86\xF7\x0D\x01\x07\x01");
const std::string kEnveloped = Tlv(0x06, "\x2A\x86\x48\x86\xF7\x0D\x01\x07\x03");

// The same without OpenSSL's functions, which make no such file. strMac: what follows the contents.
std::string FileOf(const std::string& strSafes, const std::string& strMac = "") {
    return Tlv(0x30, Tlv(0x02, "\x03") + Tlv(0x30, kData + Tlv(0xA0, Tlv(0x04, strSafes))) + strMac);
}

std::string MacBy(const std::string& strDigest) {
    return Tlv(0x30, Tlv(0x30, Tlv(0x30, Tlv(0x06, strDigest)) + Tlv(0x04, "digest")) + Tlv(0x04, "salt"));
}

struct Odd : Row {
    std::string strFile;
    std::string strReason;
};

class OddPkcs12 : public testing::TestWithParam<Odd> {};

TEST_P(OddPkcs12, IsRefusedWithTheReason) {
    SecretText pin(4);
    pin.Append('1');
    try {
        ReadIdentities(GetParam().strFile, &pin);
        ADD_FAILURE() << "it was read";
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.Number(), VCTK_E_STORE_FORMAT);
        EXPECT_NE(failure.Detail().find(GetParam().strReason), std::string::npos) << failure.Detail();
    }
}

INSTANTIATE_TEST_SUITE_P(
    , OddPkcs12,
    testing::Values(Odd{"NoListOfContents", FileOf("garbage"), "its list of contents is damaged"},
                    Odd{"NoBags", FileOf(Tlv(0x30, Tlv(0x30, kData + Tlv(0xA0, Tlv(0x04, "garbage"))))),
                        "a part of it is damaged"},
                    Odd{"UnknownDigestOfTheMac", FileOf(Tlv(0x30, ""), MacBy("\x2A\x03\x04")),
                        "its check sum (MAC), 1.2.3.4, cannot be computed by OpenSSL "},
                    Odd{"OldDigestOfTheMac", FileOf(Tlv(0x30, ""), MacBy("\x2A\x86\x48\x86\xF7\x0D\x02\x04")),
                        "its check sum (MAC), md4, cannot be computed by OpenSSL "}),
    RowName);

TEST(Pkcs12, ContentsForARecipientsKeyArePassedOver) {
    const std::string strFile = FileOf(Tlv(0x30, Tlv(0x30, kEnveloped)));
    EXPECT_TRUE(ReadIdentities(strFile, nullptr).empty());
}

struct NoPin : Row {
    const char* pszPin;
    int nEncryption = 0;  // 0: OpenSSL's default; -1: nothing is encrypted
};

class Pkcs12WithoutPin : public testing::TestWithParam<NoPin> {};

// The empty PIN and no PIN encrypt in different ways. A key can also be unencrypted.
TEST_P(Pkcs12WithoutPin, OpensWithoutOne) {
    EXPECT_EQ(ReadIdentities(MakePkcs12(GetParam().pszPin, GetParam().nEncryption), nullptr).size(), 1U);
}

INSTANTIATE_TEST_SUITE_P(, Pkcs12WithoutPin,
                         testing::Values(NoPin{"Empty", ""}, NoPin{"None", nullptr}, NoPin{"NothingEncrypted", "", -1}),
                         RowName);

}  // namespace
}  // namespace vextk
