#include "timestamp/Token.h"

#include <openssl/objects.h>
#include <openssl/pem.h>

#include <algorithm>
#include <ctime>
#include <functional>

#include "Row.h"
#include "TimeStampWorld.h"
#include "timestamp/Der.h"
#include "timestamp/Digests.h"
#include "timestamp/Reply.h"

namespace vextimestamp {
namespace {

constexpr const char* kSha1Oid = "1.3.14.3.2.26";
constexpr const char* kSha256Oid = "2.16.840.1.101.3.4.2.1";

std::string ObjectOf(const char* pszDotted) {
    const ObjectPtr object(OBJ_txt2obj(pszDotted, 1));
    unsigned char* pb = nullptr;
    const int cb = i2d_ASN1_OBJECT(object.get(), &pb);
    const MemoryPtr<unsigned char> owner(pb);
    return {pb, pb + cb};
}

std::string Now() {
    const std::time_t now = std::time(nullptr);
    std::tm fields = {};
    gmtime_r(&now, &fields);
    char text[32];
    return {text, std::strftime(text, sizeof text, "%Y%m%d%H%M%SZ", &fields)};
}

// A TSTInfo, right unless a test changes it.
struct Info {
    std::string strVersion = std::string(1, '\x01');
    const char* pszPolicy = kPolicy;
    const char* pszDigestOid = kSha256Oid;
    std::string strImprint = TextOf(DigestOf(RequireDigest("SHA256"), kValue));
    std::string strTime = Now();
    std::string strNonce;  // empty: none
    std::string strRest;

    std::string Der() const {
        const std::string strAlgorithm = Tlv(kSequenceTag, ObjectOf(pszDigestOid) + Tlv(kNull, ""));
        return Tlv(kSequenceTag, Tlv(kInteger, strVersion) + ObjectOf(pszPolicy) +
                                     Tlv(kSequenceTag, strAlgorithm + Tlv(kOctets, strImprint)) +
                                     Tlv(kInteger, "\x2A") + Tlv(kGeneralizedTime, strTime) +
                                     (strNonce.empty() ? "" : Tlv(kInteger, strNonce)) + strRest);
    }
};

Info InfoFor(const Request& request) {
    Info info;
    info.strNonce = TextOf(request.nonce);
    return info;
}

TEST(Token, OfTheOpensslCommandIsGood) {
    const Request request = MakeRequest(kValue, {"SHA384", kOtherPolicy});
    const std::time_t before = std::time(nullptr);
    const Bytes token = TokenOf(World::Get().Reply(request.der));
    const TokenFacts facts = CheckToken(token, kValue, StoreOf("root").get(), &request);
    EXPECT_GE(facts.time, before);
    EXPECT_LE(facts.time, std::time(nullptr));
    EXPECT_EQ(facts.strAuthority, "O=Clocks,CN=Authority tsa");
    EXPECT_EQ(facts.strPolicy, kOtherPolicy);
    EXPECT_EQ(facts.strDigest, "SHA384");
    EXPECT_NE(facts.strSerial, "");
    EXPECT_EQ(CheckToken(token, kValue, nullptr, nullptr).strSerial, facts.strSerial);
}

TEST(Token, MayNameItsCertificateByTheOldAttribute) {
    const Request request = MakeRequest(kValue, {});
    const Bytes token = TokenOf(World::Get().Reply(request.der, "old-attribute"));
    EXPECT_EQ(CheckToken(token, kValue, StoreOf("root").get(), &request).strPolicy, kPolicy);
}

TEST(Token, MadeByHandIsGood) {
    const Request request = MakeRequest(kValue, {});
    const Bytes token = World::Get().Token(InfoFor(request).Der());
    EXPECT_EQ(CheckToken(token, kValue, StoreOf("root").get(), &request).strSerial, "2A");
}

TEST(Token, MayHaveFractionsOfASecond) {
    Info info;
    info.strTime.insert(info.strTime.size() - 1, ".25");
    EXPECT_LE(CheckToken(World::Get().Token(info.Der()), kValue, nullptr, nullptr).time, std::time(nullptr));
}

// As a signature of another program may have it.
TEST(Token, MayHaveAnIndefiniteLength) {
    const Bytes token = World::Get().Token(Info().Der());
    const std::optional<Element> whole = OnlySequence(token);
    ASSERT_TRUE(whole);
    Bytes indefinite = {kSequenceTag, 0x80};
    indefinite.insert(indefinite.end(), whole->body.begin(), whole->body.end());
    indefinite.insert(indefinite.end(), {0, 0});
    EXPECT_EQ(CheckToken(indefinite, kValue, StoreOf("root").get(), nullptr).strSerial, "2A");
    indefinite.push_back(0);
    EXPECT_THAT(FaultOf([&] { CheckToken(indefinite, kValue, nullptr, nullptr); }),
                testing::HasSubstr("something is behind its end"));
}

TEST(Token, IsTrustedThroughItsOwnCertificateToo) {
    const Bytes token = World::Get().Token(Info().Der());
    EXPECT_EQ(CheckToken(token, kValue, StoreOf("tsa").get(), nullptr).strSerial, "2A");
}

TEST(Token, OfATimeBeforeItsCertificateExpiredIsGoodAfterwards) {
    Info info;
    info.strTime = "20200115000000Z";
    const Bytes token = World::Get().Token(info.Der(), "expired");
    EXPECT_EQ(CheckToken(token, kValue, nullptr, nullptr).time, 1579046400);
    EXPECT_EQ(CheckToken(token, kValue, StoreOf("expired").get(), nullptr).time, 1579046400);
}

struct InfoRow : Row {
    std::function<void(Info&)> change;
    std::string strFault;
};

class BadInfo : public testing::TestWithParam<InfoRow> {};

TEST_P(BadInfo, IsRefused) {
    const Request request = MakeRequest(kValue, {"SHA256", kPolicy});
    Info info = InfoFor(request);
    GetParam().change(info);
    const Bytes token = World::Get().Token(info.Der());
    EXPECT_THAT(FaultOf([&] { CheckToken(token, kValue, nullptr, &request); }),
                testing::HasSubstr(GetParam().strFault));
}

INSTANTIATE_TEST_SUITE_P(
    Changes, BadInfo,
    testing::Values(InfoRow{{"Version"}, [](Info& made) { made.strVersion = "\x02"; }, "version"},
                    InfoRow{{"OtherSignature"},
                            [](Info& made) { made.strImprint[0] = made.strImprint[0] == 'x' ? 'y' : 'x'; },
                            "another signature"},
                    InfoRow{{"ShortImprint"}, [](Info& made) { made.strImprint.resize(31); }, "another signature"},
                    InfoRow{{"LongImprint"}, [](Info& made) { made.strImprint += 'x'; }, "another signature"},
                    InfoRow{{"NoImprint"}, [](Info& made) { made.strImprint.clear(); }, "another signature"},
                    InfoRow{{"Sha1"},
                            [](Info& made) {
                                made.pszDigestOid = kSha1Oid;
                                made.strImprint = std::string(20, 'x');
                            },
                            kSha1Oid},
                    InfoRow{{"OtherDigest"},
                            [](Info& made) {
                                made.pszDigestOid = "2.16.840.1.101.3.4.2.2";
                                made.strImprint = TextOf(DigestOf(RequireDigest("SHA384"), kValue));
                            },
                            "SHA384, not SHA256"},
                    InfoRow{{"OtherNonce"},
                            [](Info& made) { made.strNonce.back() = made.strNonce.back() == 'x' ? 'y' : 'x'; },
                            "another nonce"},
                    InfoRow{{"NegativeNonce"}, [](Info& made) { made.strNonce[0] = '\x80'; }, "another nonce"},
                    InfoRow{{"NoNonce"}, [](Info& made) { made.strNonce.clear(); }, "no nonce"},
                    InfoRow{
                        {"OtherPolicy"}, [](Info& made) { made.pszPolicy = kOtherPolicy; }, "1.2.3.4.5, not 1.2.3.4.1"},
                    InfoRow{{"LocalTime"}, [](Info& made) { made.strTime.pop_back(); }, "cannot be read"},
                    InfoRow{{"TimeWithZone"}, [](Info& made) { made.strTime.replace(14, 1, "+0100"); }, "none in UTC"},
                    InfoRow{{"ImpossibleTime"}, [](Info& made) { made.strTime = "20261399999999Z"; }, "none in UTC"},
                    InfoRow{{"BeforeTheCertificate"},
                            [](Info& made) { made.strTime = "20200115000000Z"; },
                            "not valid at 2020-01-15T00:00:00Z"},
                    InfoRow{{"AfterTheCertificate"},
                            [](Info& made) { made.strTime = "20990115000000Z"; },
                            "not valid at 2099-01-15T00:00:00Z"},
                    InfoRow{{"TrailingField"}, [](Info& made) { made.strRest = Tlv(kOctets, "x"); }, "TSTInfo"},
                    InfoRow{{"CriticalExtension"},
                            [](Info& made) {
                                constexpr unsigned char kBoolean = 0x01;
                                constexpr unsigned char kContext1 = 0xA1;
                                made.strRest = Tlv(
                                    kContext1,
                                    Tlv(kSequenceTag, ObjectOf("1.2.3.4") + Tlv(kBoolean, "\xFF") + Tlv(kOctets, "x")));
                            },
                            "critical extension"}),
    RowName);

struct SignerRow : Row {
    std::string strSigner;
    std::string strOptions;
    std::string strFault;
};

class BadSigner : public testing::TestWithParam<SignerRow> {};

TEST_P(BadSigner, IsRefused) {
    const Bytes token = World::Get().Token(Info().Der(), GetParam().strSigner, GetParam().strOptions);
    const std::string strFault = FaultOf([&] { CheckToken(token, kValue, nullptr, nullptr); });
    EXPECT_THAT(strFault, testing::HasSubstr(GetParam().strFault));
}

constexpr const char* kType = "-econtent_type 1.2.840.113549.1.9.16.1.4";

INSTANTIATE_TEST_SUITE_P(
    Signers, BadSigner,
    testing::Values(SignerRow{{"UncriticalUsage"}, "uncritical", std::string("-cades ") + kType, "not critical"},
                    SignerRow{{"SeveralUsages"}, "several", std::string("-cades ") + kType, "not timeStamping alone"},
                    SignerRow{{"OtherUsage"}, "server", std::string("-cades ") + kType, "not timeStamping alone"},
                    SignerRow{{"AnyUsage"}, "unlimited", std::string("-cades ") + kType, "not timeStamping alone"},
                    SignerRow{{"KeyUsage"}, "encrypts", std::string("-cades ") + kType, "not for signing alone"},
                    SignerRow{{"MoreKeyUsage"}, "both", std::string("-cades ") + kType, "not for signing alone"},
                    SignerRow{{"Expired"}, "expired", std::string("-cades ") + kType, "CN=Expired) is not valid at"},
                    SignerRow{{"NotNamed"}, "tsa", kType, "do not name the signer's certificate"},
                    SignerRow{{"NoSignedAttributes"}, "tsa", std::string("-noattr ") + kType, "not one of a TSTInfo"},
                    SignerRow{{"NoCertificate"}, "tsa", std::string("-cades -nocerts ") + kType, "signer is not in it"},
                    SignerRow{{"OtherContent"}, "tsa", "-cades", "no TSTInfo"},
                    SignerRow{{"WeakDigest"}, "tsa", std::string("-cades -md sha1 ") + kType, "weak digest"},
                    SignerRow{{"TwoSigners"},
                              "tsa",
                              std::string("-cades -signer second.crt -inkey second.key ") + kType,
                              "other than one signer"}),
    RowName);

TEST(Token, ThatLeadsToNoTrustedCertificateIsRefused) {
    const Bytes token = World::Get().Token(Info().Der());
    EXPECT_THAT(FaultOf([&] { CheckToken(token, kValue, StoreOf("stranger").get(), nullptr); }),
                testing::HasSubstr("leads to no trusted certificate"));
    const std::shared_ptr<X509_STORE> empty(X509_STORE_new(), X509_STORE_free);
    EXPECT_THAT(FaultOf([&] { CheckToken(token, kValue, empty.get(), nullptr); }),
                testing::HasSubstr("leads to no trusted certificate"));
}

TEST(Token, OfAnotherSignatureIsRefusedWithoutARequestToo) {
    const Bytes token = World::Get().Token(Info().Der());
    EXPECT_THAT(FaultOf([&] { CheckToken(token, BytesOf("another value"), nullptr, nullptr); }),
                testing::HasSubstr("another signature"));
}

// A signature is a time stamp's only as long as none of its bytes, and none of the content's, is changed.
TEST(Token, ThatIsCutOrLongerIsRefused) {
    const Bytes token = World::Get().Token(Info().Der());
    for (std::size_t cb = 0; cb < token.size(); ++cb) {
        EXPECT_NE(FaultOf([&] { CheckToken(std::span(token).first(cb), kValue, nullptr, nullptr); }), "") << cb;
    }
    Bytes longer = token;
    longer.push_back(0);
    EXPECT_THAT(FaultOf([&] { CheckToken(longer, kValue, nullptr, nullptr); }), testing::HasSubstr("cannot be read"));
}

TEST(Token, WithSomethingBehindItsInfoIsRefused) {
    EXPECT_THAT(FaultOf([] { CheckToken(World::Get().Token(Info().Der() + "x"), kValue, nullptr, nullptr); }),
                testing::HasSubstr("its content is no TSTInfo"));
}

TEST(Token, WithAnotherTimeThanItsSignerWroteIsRefused) {
    const Info info;
    Bytes token = World::Get().Token(info.Der());
    const auto found = std::search(token.begin(), token.end(), info.strTime.begin(), info.strTime.end());
    ASSERT_NE(found, token.end());
    found[13] = found[13] == '0' ? '1' : '0';
    EXPECT_THAT(FaultOf([&] { CheckToken(token, kValue, nullptr, nullptr); }),
                testing::HasSubstr("signature is wrong"));
}

TEST(Token, LeavesNoErrorInTheCallersQueue) {
    ERR_clear_error();
    ERR_raise(ERR_LIB_USER, 1);
    const unsigned long ulCallers = ERR_peek_last_error();
    EXPECT_NE(FaultOf([] { CheckToken(BytesOf("0\x03xyz"), kValue, nullptr, nullptr); }), "");
    EXPECT_EQ(ERR_peek_last_error(), ulCallers);
    ERR_clear_error();
}

}  // namespace
}  // namespace vextimestamp
