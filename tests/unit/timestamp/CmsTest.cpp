#include "timestamp/Cms.h"

#include <algorithm>

#include "Row.h"
#include "TimeStampWorld.h"
#include "timestamp/Reply.h"
#include "timestamp/Request.h"

namespace vextimestamp {
namespace {

Bytes TokenFor(const Bytes& cms) {
    return TokenOf(World::Get().Reply(MakeRequest(SignatureValueOf(cms), {}).der));
}

struct FormRow : Row {
    std::string strOptions;  // of openssl cms -sign
};

class CmsForm : public testing::TestWithParam<FormRow> {};

// The openssl command is the judge: of the signature, and of the stamp.
TEST_P(CmsForm, KeepsItsSignatureAndGetsAStampOfIt) {
    const World& world = World::Get();
    const Bytes cms = world.Signature(GetParam().strOptions);
    const Bytes token = TokenFor(cms);
    const Bytes stamped = WithToken(cms, token);
    EXPECT_EQ(SignatureValueOf(stamped), SignatureValueOf(cms));
    EXPECT_EQ(TokensOf(stamped), std::vector<Bytes>{token});
    world.Write("content", "text");
    EXPECT_EQ(TextOf(world.Run("openssl cms -verify -binary -inform DER -in IN -content content -CAfile root.crt"
                               " -purpose any -certfile signer.crt -out OUT",
                               stamped)),
              "text");
    world.Write("value", TextOf(SignatureValueOf(stamped)));
    EXPECT_THAT(TextOf(world.Run("openssl ts -verify -data value -in IN -token_in -CAfile root.crt > OUT 2>&1", token)),
                testing::HasSubstr("OK"));
}

INSTANTIATE_TEST_SUITE_P(Forms, CmsForm,
                         testing::Values(FormRow{{"Detached"}, ""}, FormRow{{"Attached"}, "-nodetach"},
                                         FormRow{{"Cades"}, "-cades"}, FormRow{{"NoCertificates"}, "-nocerts"},
                                         FormRow{{"KeyIdentifier"}, "-keyid"},
                                         FormRow{{"NoSignedAttributes"}, "-noattr"},
                                         FormRow{{"Indefinite"}, "-nodetach -stream"}),
                         RowName);

TEST(Cms, HoldsSeveralStamps) {
    const Bytes cms = World::Get().Signature();
    const Bytes first = TokenFor(cms);
    const Bytes second = TokenFor(cms);
    ASSERT_NE(first, second);
    const Bytes stamped = WithToken(WithToken(cms, first), second);
    EXPECT_THAT(TokensOf(stamped), testing::UnorderedElementsAre(first, second));
}

TEST(Cms, WithoutStampHasNone) {
    EXPECT_TRUE(TokensOf(World::Get().Signature()).empty());
}

TEST(Cms, WhoseSignedAttributesAreNotInDerGetsNoStamp) {
    const Bytes cms = World::Get().Signature();
    // The type of the content and the signing time change places: OpenSSL would sort them again.
    const std::string strType = Tlv(kSequenceTag, Tlv(kObject, "\x2A\x86\x48\x86\xF7\x0D\x01\x09\x03") +
                                                      Tlv(0x31, Tlv(kObject, "\x2A\x86\x48\x86\xF7\x0D\x01\x07\x01")));
    std::string strCms = TextOf(cms);
    const std::size_t nType = strCms.find(strType);
    ASSERT_NE(nType, std::string::npos);
    const std::size_t nNext = nType + strType.size();
    const std::size_t cbNext = 2 + static_cast<unsigned char>(strCms.at(nNext + 1));
    const std::string strNext = strCms.substr(nNext, cbNext);
    strCms.replace(nType, strType.size() + cbNext, strNext + strType);
    EXPECT_THAT(FaultOf([&] { WithToken(BytesOf(strCms), TokenFor(cms)); }),
                testing::HasSubstr("signed attributes of this one are not in DER"));
}

struct BadRow : Row {
    std::function<Bytes()> bytes;
    std::string strFault;
};

class BadCms : public testing::TestWithParam<BadRow> {};

TEST_P(BadCms, IsRefusedByAllThree) {
    const Bytes cms = GetParam().bytes();
    const Bytes token = BytesOf(Tlv(kSequenceTag, ""));
    EXPECT_THAT(FaultOf([&] { SignatureValueOf(cms); }), testing::HasSubstr(GetParam().strFault));
    EXPECT_THAT(FaultOf([&] { WithToken(cms, token); }), testing::HasSubstr(GetParam().strFault));
    EXPECT_THAT(FaultOf([&] { TokensOf(cms); }), testing::HasSubstr(GetParam().strFault));
}

INSTANTIATE_TEST_SUITE_P(
    Bytes, BadCms,
    testing::Values(
        BadRow{{"Empty"}, [] { return Bytes(); }, "no bytes"},
        BadRow{{"Garbage"}, [] { return BytesOf("garbage"); }, "cannot read"},
        BadRow{{"Longer"},
               [] {
                   Bytes cms = World::Get().Signature();
                   cms.push_back(0);
                   return cms;
               },
               "behind the end"},
        BadRow{{"Cut"},
               [] {
                   Bytes cms = World::Get().Signature();
                   cms.pop_back();
                   return cms;
               },
               "cannot read"},
        BadRow{
            {"OtherKind"},
            [] { return World::Get().Run("openssl cms -data_create -in IN -outform DER -out OUT", BytesOf("text")); },
            "another kind"},
        BadRow{{"TwoSigners"}, [] { return World::Get().Signature("-signer tsa.crt -inkey tsa.key"); }, "has 2"},
        BadRow{{"NoSigner"},
               [] { return World::Get().Run("openssl crl2pkcs7 -nocrl -certfile root.crt -outform DER -out OUT", {}); },
               "has 0"}),
    RowName);

TEST(Cms, RefusesATokenThatIsNotOneSequence) {
    const Bytes cms = World::Get().Signature();
    for (const std::string& strToken :
         {std::string(), std::string("x"), Tlv(kOctets, "x"), Tlv(kSequenceTag, "x") + "x"}) {
        EXPECT_THAT(FaultOf([&] { WithToken(cms, BytesOf(strToken)); }), testing::HasSubstr("not one sequence"));
    }
}

}  // namespace
}  // namespace vextimestamp
