// Signatures, requests, replies and tokens that OpenSSL reads, but that have another form than they should.
#include <openssl/cms.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/ts.h>

#include <functional>
#include <memory>
#include <stdexcept>

#include "Row.h"
#include "TimeStampWorld.h"
#include "timestamp/Cms.h"
#include "timestamp/Der.h"
#include "timestamp/Digests.h"
#include "timestamp/Numbers.h"
#include "timestamp/OpenSsl.h"
#include "timestamp/Reply.h"
#include "timestamp/Request.h"
#include "timestamp/Token.h"

namespace vextimestamp {
namespace {

const Bytes kValue = BytesOf("a signature value");
constexpr int kNewNames = NID_id_smime_aa_signingCertificateV2;
constexpr int kOldNames = NID_id_smime_aa_signingCertificate;

void Require(bool bSucceeded) {
    if (!bSucceeded) {
        throw std::runtime_error("OpenSSL made no object for the test");
    }
}

Bytes Encoded(const CMS_ContentInfo* pCms) {
    unsigned char* pb = nullptr;
    const int cb = i2d_CMS_ContentInfo(pCms, &pb);
    const MemoryPtr<unsigned char> owner(pb);
    Require(cb > 0);
    return {pb, pb + cb};
}

CmsPtr Decoded(const Bytes& cms) {
    const unsigned char* pb = cms.data();
    CmsPtr decoded(d2i_CMS_ContentInfo(nullptr, &pb, static_cast<long>(cms.size())));
    Require(decoded != nullptr);
    return decoded;
}

CMS_SignerInfo* SignerOf(const CmsPtr& cms) {
    return sk_CMS_SignerInfo_value(CMS_get0_SignerInfos(cms.get()), 0);
}

// A TSTInfo for kValue.
std::string Info() {
    const std::string strSha256 = Tlv(kObject, "\x60\x86\x48\x01\x65\x03\x04\x02\x01");
    const std::string strImprint = TextOf(DigestOf(RequireDigest("SHA256"), kValue));
    return Tlv(kSequenceTag, Tlv(kInteger, "\x01") + Tlv(kObject, "\x2A\x03\x04\x01") +
                                 Tlv(kSequenceTag, Tlv(kSequenceTag, strSha256) + Tlv(kOctets, strImprint)) +
                                 Tlv(kInteger, "\x2A") + Tlv(kGeneralizedTime, "20260101000000Z"));
}

BioPtr FileOf(const std::string& strName) {
    return BioPtr(BIO_new_file(World::Get().File(strName).c_str(), "r"));
}
X509Ptr CertificateOf(const std::string& strName) {
    return X509Ptr(PEM_read_bio_X509(FileOf(strName + ".crt").get(), nullptr, nullptr, nullptr));
}
KeyPtr KeyOf(const std::string& strName) {
    return KeyPtr(PEM_read_bio_PrivateKey(FileOf(strName + ".key").get(), nullptr, nullptr, nullptr));
}

constexpr unsigned int kFlags = CMS_PARTIAL | CMS_BINARY | CMS_NOSMIMECAP;

// Signs Info with further signed attributes. nNames: CMS_CADES, if one of them is the right name of the certificate.
Bytes TokenWith(const std::function<void(CMS_SignerInfo*)>& fnAddAttributes, unsigned int nNames = 0,
                const X509Ptr& certificate = CertificateOf("tsa")) {
    const KeyPtr key = KeyOf("tsa");
    const CmsPtr cms(CMS_sign(nullptr, nullptr, nullptr, nullptr, kFlags));
    Require(cms && CMS_set1_eContentType(cms.get(), OBJ_nid2obj(NID_id_smime_ct_TSTInfo)) == 1);
    CMS_SignerInfo* const pSigner =
        CMS_add1_signer(cms.get(), certificate.get(), key.get(), EVP_sha256(), kFlags | nNames);
    Require(pSigner != nullptr);
    fnAddAttributes(pSigner);
    const std::string strInfo = Info();
    const BioPtr info(BIO_new_mem_buf(strInfo.data(), static_cast<int>(strInfo.size())));
    Require(CMS_set_detached(cms.get(), 0) == 1 && CMS_final(cms.get(), info.get(), nullptr, CMS_BINARY) == 1);
    return Encoded(cms.get());
}

void AddSigned(CMS_SignerInfo* pSigner, int nNid, int nType, const std::string& strValue) {
    Require(CMS_signed_add1_attr_by_NID(pSigner, nNid, nType, strValue.data(), static_cast<int>(strValue.size())) == 1);
}

// ---- The names of the signer's certificate ----

struct Naming : Row {
    int nNid;
    int nType;
    std::string strValue;
};

class WrongNaming : public testing::TestWithParam<Naming> {};

TEST_P(WrongNaming, IsThatOfAnotherCertificate) {
    const Naming& naming = GetParam();
    const Bytes token =
        TokenWith([&](CMS_SignerInfo* pSigner) { AddSigned(pSigner, naming.nNid, naming.nType, naming.strValue); });
    EXPECT_THAT(FaultOf([&] { CheckToken(token, kValue, nullptr, nullptr); }),
                testing::HasSubstr("name another certificate than its signer's (O=Clocks,CN=Authority tsa)"));
}

std::string Identifiers(const std::string& strIdentifiers) {
    return Tlv(kSequenceTag, Tlv(kSequenceTag, strIdentifiers));
}
const std::string kOtherCertificate = Tlv(kSequenceTag, Tlv(kOctets, std::string(32, 'x')));
const std::string kOtherCertificateSha1 = Tlv(kSequenceTag, Tlv(kOctets, std::string(20, 'x')));

INSTANTIATE_TEST_SUITE_P(
    , WrongNaming,
    testing::Values(Naming{{"NoSequence"}, kNewNames, V_ASN1_OCTET_STRING, "x"},
                    Naming{{"NothingInIt"}, kNewNames, V_ASN1_SEQUENCE, Tlv(kSequenceTag, "")},
                    Naming{{"NoIdentifier"}, kNewNames, V_ASN1_SEQUENCE, Identifiers("")},
                    Naming{{"NumberForIdentifier"}, kNewNames, V_ASN1_SEQUENCE, Identifiers(Tlv(kInteger, "1"))},
                    Naming{{"AnotherOne"}, kNewNames, V_ASN1_SEQUENCE, Identifiers(kOtherCertificate)},
                    Naming{{"EmptyIdentifier"}, kNewNames, V_ASN1_SEQUENCE, Identifiers(Tlv(kSequenceTag, ""))},
                    Naming{{"EmptyOldIdentifier"}, kOldNames, V_ASN1_SEQUENCE, Identifiers(Tlv(kSequenceTag, ""))},
                    Naming{{"AnotherOldOne"}, kOldNames, V_ASN1_SEQUENCE, Identifiers(kOtherCertificateSha1)}),
    RowName);

TEST(OddToken, OfAShortKeyIsRefused) {
    const World& world = World::Get();
    RequireCommand("cd " + world.File("") +
                   " && openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:1024 -out short.key && openssl req"
                   " -x509 -new -config tsa.cnf -key short.key -days 30 -CA root.crt -CAkey root.key -out short.crt");
    const Bytes token = world.Token(Info(), "short");
    EXPECT_THAT(FaultOf([&] { CheckToken(token, kValue, nullptr, nullptr); }),
                testing::HasSubstr("(O=Clocks,CN=Authority tsa) is too short, or unknown"));
}

// Nobody knows whether such a signature is wrong.
TEST(OddToken, WhoseSignatureOpenSslCannotCheckIsRefused) {
    const World& world = World::Get();
    RequireCommand("cd " + world.File("") +
                   " && openssl genpkey -algorithm RSA-PSS -pkeyopt rsa_keygen_bits:2048 -out pss.key && openssl req"
                   " -x509 -new -config tsa.cnf -key pss.key -days 30 -CA root.crt -CAkey root.key -out pss.crt");
    const CmsPtr token = Decoded(
        world.Token(Info(), "pss", "-cades -econtent_type 1.2.840.113549.1.9.16.1.4 -keyopt rsa_padding_mode:pss"));
    X509_ALGOR* pAlgorithm = nullptr;
    CMS_SignerInfo_get0_algs(SignerOf(token), nullptr, nullptr, nullptr, &pAlgorithm);
    Require(X509_ALGOR_set0(pAlgorithm, OBJ_nid2obj(NID_rsaEncryption), V_ASN1_NULL, nullptr) == 1);
    const Bytes changed = Encoded(token.get());
    EXPECT_THAT(FaultOf([&] { CheckToken(changed, kValue, nullptr, nullptr); }),
                testing::HasSubstr("OpenSSL cannot check the time stamp's signature: "));
}

// What a signer says that the content is.
struct ContentType : Row {
    void (*pfnChange)(CMS_SignerInfo*);
    std::string strFault;
};

class WrongContentType : public testing::TestWithParam<ContentType> {};

TEST_P(WrongContentType, IsRefused) {
    const CmsPtr token = Decoded(TokenWith([](CMS_SignerInfo*) {}, CMS_CADES));
    GetParam().pfnChange(SignerOf(token));
    const Bytes changed = Encoded(token.get());
    EXPECT_THAT(FaultOf([&] { CheckToken(changed, kValue, nullptr, nullptr); }),
                testing::HasSubstr(GetParam().strFault));
}

void Add(CMS_SignerInfo* pSigner, int nType, const void* pValue, int cb) {
    Require(CMS_signed_add1_attr_by_NID(pSigner, NID_pkcs9_contentType, nType, pValue, cb) == 1);
}

void Remove(CMS_SignerInfo* pSigner) {
    X509_ATTRIBUTE_free(
        CMS_signed_delete_attr(pSigner, CMS_signed_get_attr_by_NID(pSigner, NID_pkcs9_contentType, -1)));
}

constexpr const char* kNotOne = "the signed attribute contentType with other than one value";
constexpr const char* kNoInfo = "the time stamp's signature is not one of a TSTInfo";

INSTANTIATE_TEST_SUITE_P(
    , WrongContentType,
    testing::Values(ContentType{{"None"}, Remove, kNoInfo},
                    ContentType{{"Data"},
                                [](CMS_SignerInfo* pSigner) {
                                    Remove(pSigner);
                                    Add(pSigner, V_ASN1_OBJECT, OBJ_nid2obj(NID_pkcs7_data), -1);
                                },
                                kNoInfo},
                    ContentType{{"NoObject"},
                                [](CMS_SignerInfo* pSigner) {
                                    Remove(pSigner);
                                    Add(pSigner, V_ASN1_OCTET_STRING, "x", 1);
                                },
                                kNoInfo},
                    ContentType{{"TwoValues"},
                                [](CMS_SignerInfo* pSigner) {
                                    X509_ATTRIBUTE* const pAttribute = CMS_signed_get_attr(
                                        pSigner, CMS_signed_get_attr_by_NID(pSigner, NID_pkcs9_contentType, -1));
                                    Require(X509_ATTRIBUTE_set1_data(pAttribute, V_ASN1_OBJECT,
                                                                     OBJ_nid2obj(NID_pkcs7_data), -1) == 1);
                                },
                                kNotOne},
                    ContentType{{"TwoAttributes"},
                                [](CMS_SignerInfo* pSigner) {
                                    X509_ATTRIBUTE* const pAttribute = CMS_signed_get_attr(
                                        pSigner, CMS_signed_get_attr_by_NID(pSigner, NID_pkcs9_contentType, -1));
                                    Require(CMS_signed_add1_attr(pSigner, pAttribute) == 1);
                                },
                                kNotOne}),
    RowName);

struct Dates : Row {
    ASN1_TIME* (*pfnDate)(const X509*);
    std::string strFault;
};

class ImpossibleDate : public testing::TestWithParam<Dates> {};

// No moment lies between dates of which one does not exist.
TEST_P(ImpossibleDate, OfTheSignerIsNamed) {
    const X509Ptr certificate = CertificateOf("tsa");
    ASN1_TIME* const pDate = GetParam().pfnDate(certificate.get());
    pDate->type = V_ASN1_GENERALIZEDTIME;
    Require(ASN1_STRING_set(pDate, "20261399999999Z", -1) == 1 &&
            X509_sign(certificate.get(), KeyOf("root").get(), EVP_sha256()) > 0);
    const Bytes token = TokenWith([](CMS_SignerInfo*) {}, CMS_CADES, certificate);
    EXPECT_THAT(FaultOf([&] { CheckToken(token, kValue, nullptr, nullptr); }), testing::HasSubstr(GetParam().strFault));
}

INSTANTIATE_TEST_SUITE_P(, ImpossibleDate,
                         testing::Values(Dates{{"Begin"}, X509_getm_notBefore, "valid from an impossible date to 2"},
                                         Dates{{"End"}, X509_getm_notAfter, "Z to an impossible date"}),
                         RowName);

TEST(OddToken, OfAnotherKindOfCmsIsRefused) {
    const Bytes data =
        World::Get().Run("openssl cms -data_create -in IN -outform DER -out OUT", BytesOf("no time stamp"));
    EXPECT_THAT(FaultOf([&] { CheckToken(data, kValue, nullptr, nullptr); }),
                testing::HasSubstr("it is no CMS SignedData"));
}

TEST(OddToken, WithoutContentIsRefused) {
    const Bytes token = World::Get().Run(
        "openssl cms -sign -binary -signer tsa.crt -inkey tsa.key -cades -econtent_type 1.2.840.113549.1.9.16.1.4"
        " -in IN -outform DER -out OUT",
        BytesOf(Info()));
    EXPECT_THAT(FaultOf([&] { CheckToken(token, kValue, nullptr, nullptr); }), testing::HasSubstr("it has no content"));
}

// ---- Signatures ----

TEST(OddSignature, WithAStampThatIsNoSequenceIsRefused) {
    const CmsPtr cms = Decoded(World::Get().Signature());
    Require(CMS_unsigned_add1_attr_by_NID(SignerOf(cms), NID_id_smime_aa_timeStampToken, V_ASN1_OCTET_STRING, "x", 1) ==
            1);
    const Bytes stamped = Encoded(cms.get());
    EXPECT_THAT(FaultOf([&] { TokensOf(stamped); }), testing::HasSubstr("is no sequence, so it cannot be read"));
}

TEST(OddSignature, WithAnEmptyValueGetsNoStamp) {
    const CmsPtr cms = Decoded(World::Get().Signature());
    Require(ASN1_STRING_set(CMS_SignerInfo_get0_signature(SignerOf(cms)), "", 0) == 1);
    const Bytes empty = Encoded(cms.get());
    EXPECT_THAT(FaultOf([&] { SignatureValueOf(empty); }),
                testing::HasSubstr("the signature value of this one is empty"));
}

// ---- Requests ----

struct OddRequest : Row {
    std::string strDer;
    std::string strFault;
};

class RequestInOddForm : public testing::TestWithParam<OddRequest> {};

TEST_P(RequestInOddForm, IsRefused) {
    EXPECT_THAT(FaultOf([] { ReadRequest(BytesOf(GetParam().strDer)); }), testing::HasSubstr(GetParam().strFault));
}

std::string RequestOf(char chVersion, std::size_t cbDigest, const std::string& strNonce = Tlv(kInteger, "\x2A")) {
    constexpr unsigned char kBoolean = 0x01;
    const std::string strSha256 = Tlv(kObject, "\x60\x86\x48\x01\x65\x03\x04\x02\x01");
    return Tlv(kSequenceTag, Tlv(kInteger, std::string(1, chVersion)) +
                                 Tlv(kSequenceTag, Tlv(kSequenceTag, strSha256 + Tlv(kNull, "")) +
                                                       Tlv(kOctets, std::string(cbDigest, 'x'))) +
                                 strNonce + Tlv(kBoolean, "\xFF"));
}

TEST(RequestInRightForm, IsRead) {
    EXPECT_EQ(TextOf(ReadRequest(BytesOf(RequestOf('\x01', 32))).nonce), "\x2A");
}

INSTANTIATE_TEST_SUITE_P(
    , RequestInOddForm,
    testing::Values(OddRequest{{"NoRequest"}, Tlv(kSequenceTag, Tlv(kOctets, "x")), "OpenSSL cannot read it"},
                    OddRequest{{"NoDer"}, RequestOf('\x01', 32, "\x02\x81\x01\x2A"), "it is not in DER"},
                    OddRequest{{"OtherVersion"}, RequestOf('\x02', 32), "its version"},
                    OddRequest{{"ShortDigest"}, RequestOf('\x01', 31), "its digest has another length"}),
    RowName);

// ---- Replies ----

TEST(OddReply, WithManyTextsIsShownInPart) {
    std::string strTexts;
    for (int i = 0; i < 10; ++i) {
        strTexts += Tlv(kUtf8, "text " + std::to_string(i) + std::string(90, '.'));
    }
    const std::string strReply =
        Tlv(kSequenceTag, Tlv(kSequenceTag, Tlv(kInteger, "\x02") + Tlv(kSequenceTag, strTexts)));
    const std::string strFault = FaultOf([&] { TokenOf(BytesOf(strReply)); });
    EXPECT_THAT(strFault, testing::HasSubstr("text 1."));
    EXPECT_THAT(strFault, testing::Not(testing::HasSubstr("text 9.")));
}

// ---- Elements and numbers ----

TEST(OddElement, IsNotTaken) {
    constexpr unsigned char kPlainSequence = 0x10;  // not constructed
    constexpr unsigned char kContext2 = 0x82;
    for (const std::string& strBytes : {std::string(), Tlv(kPlainSequence, "x"), std::string("\x30\x05x", 3)}) {
        const Bytes bytes = BytesOf(strBytes);
        View view = bytes;
        EXPECT_FALSE(TakeElement(view));
        EXPECT_EQ(view.size(), bytes.size());
    }
    const Bytes context = BytesOf(Tlv(kContext2, "x"));
    View view = context;
    EXPECT_FALSE(TakeElement(view, V_ASN1_INTEGER));
    EXPECT_TRUE(TakeElement(view));
}

TEST(OddNumber, IsNotPositive) {
    EXPECT_FALSE(PositiveBytes(nullptr));
    const IntegerPtr number(ASN1_INTEGER_new());
    for (const auto& [nNumber, bPositive] : {std::pair{0, false}, {-5, false}, {5, true}}) {
        ASSERT_EQ(ASN1_INTEGER_set(number.get(), nNumber), 1);
        EXPECT_EQ(PositiveBytes(number.get()).has_value(), bPositive) << nNumber;
    }
}

}  // namespace
}  // namespace vextimestamp
