#include "timestamp/Reply.h"

#include "Row.h"
#include "TimeStampWorld.h"
#include "timestamp/Request.h"

namespace vextimestamp {
namespace {

const std::string kToken = Tlv(kSequenceTag, "token");

std::string Status(char chStatus, const std::string& strRest = "") {
    return Tlv(kSequenceTag, Tlv(kInteger, std::string(1, chStatus)) + strRest);
}

TEST(Reply, OfTheOpensslCommandHasTheTokenThatItFinds) {
    const Bytes reply = World::Get().Reply(MakeRequest(kValue, {}).der);
    EXPECT_EQ(TokenOf(reply), World::Get().Run("openssl ts -reply -in IN -token_out -out OUT", reply));
}

TEST(Reply, ThatIsRefusedSaysWhatTheAuthoritySays) {
    const Bytes reply = World::Get().Reply(MakeRequest(kValue, {"SHA512", ""}).der, "only-sha384");
    const std::string strFault = FaultOf([&] { TokenOf(reply); });
    EXPECT_THAT(strFault, testing::HasSubstr("rejection"));
    EXPECT_THAT(strFault, testing::HasSubstr("badAlg"));
}

TEST(Reply, ThatIsGrantedGivesTheTokenByteForByte) {
    EXPECT_EQ(TextOf(TokenOf(BytesOf(Tlv(kSequenceTag, Status(0) + kToken)))), kToken);
    EXPECT_EQ(TextOf(TokenOf(BytesOf(Tlv(kSequenceTag, Status(1) + kToken)))), kToken);
}

struct ReplyRow : Row {
    std::string strBytes;
    std::string strFault;
};

class BadReply : public testing::TestWithParam<ReplyRow> {};

TEST_P(BadReply, IsAFaultInOneLine) {
    const std::string strFault = FaultOf([] { TokenOf(BytesOf(GetParam().strBytes)); });
    EXPECT_THAT(strFault, testing::HasSubstr(GetParam().strFault));
    EXPECT_EQ(strFault.find_first_of("\n\r\x1b"), std::string::npos);
    EXPECT_LT(strFault.size(), 2000U);
}

INSTANTIATE_TEST_SUITE_P(
    Bytes, BadReply,
    testing::Values(
        ReplyRow{{"Empty"}, "", "no sequence"}, ReplyRow{{"Page"}, "<html>", "no sequence"},
        ReplyRow{{"TrailingBytes"}, Tlv(kSequenceTag, Status(0) + kToken) + "x", "behind it"},
        ReplyRow{{"TwoTokens"}, Tlv(kSequenceTag, Status(0) + kToken + kToken), "token is no sequence"},
        ReplyRow{{"NoToken"}, Tlv(kSequenceTag, Status(0)), "no token"},
        ReplyRow{{"TokenIsNoSequence"}, Tlv(kSequenceTag, Status(0) + Tlv(kOctets, "t")), "token is no sequence"},
        ReplyRow{{"NoStatus"}, Tlv(kSequenceTag, ""), "no status"},
        ReplyRow{{"StatusIsNoNumber"}, Tlv(kSequenceTag, Tlv(kSequenceTag, Tlv(kOctets, "0"))), "status"},
        ReplyRow{{"Waiting"}, Tlv(kSequenceTag, Status(3)), "waiting"},
        ReplyRow{{"RejectedWithToken"}, Tlv(kSequenceTag, Status(2) + kToken), "rejection"},
        ReplyRow{{"UnknownStatus"}, Tlv(kSequenceTag, Status(17)), "status 17"},
        ReplyRow{{"NegativeStatus"}, Tlv(kSequenceTag, Status('\xFF') + kToken), "status -1"},
        ReplyRow{{"HugeStatus"},
                 Tlv(kSequenceTag, Tlv(kSequenceTag, Tlv(kInteger, std::string(30, '\x7F'))) + kToken),
                 "status"},
        ReplyRow{{"HostileText"},
                 Tlv(kSequenceTag, Status(2, Tlv(kSequenceTag, Tlv(kUtf8, "no\n\x1b[2Jway")))),
                 R"("no\n\x1b[2Jway")"},
        ReplyRow{
            {"LongText"}, Tlv(kSequenceTag, Status(2, Tlv(kSequenceTag, Tlv(kUtf8, std::string(60000, 'x'))))), "xxx"},
        ReplyRow{{"SystemFailure"},
                 Tlv(kSequenceTag, Status(2, Tlv(kBitString, std::string("\x06\x00\x00\x00\x40", 5)))),
                 "systemFailure"},
        ReplyRow{{"IndefiniteLength"},
                 std::string("\x30\x80", 2) + Status(0) + kToken + std::string(2, '\0'),
                 "no sequence"},
        ReplyRow{{"TooLong"}, std::string("\x30\x84\x7F\xFF\xFF\xFF", 6) + Status(0), "no sequence"}),
    RowName);

TEST(Reply, ThatIsCutIsRefused) {
    const Bytes reply = World::Get().Reply(MakeRequest(kValue, {}).der);
    for (std::size_t cb = 0; cb < reply.size(); ++cb) {
        EXPECT_NE(FaultOf([&] { TokenOf(std::span(reply).first(cb)); }), "") << cb;
    }
}

}  // namespace
}  // namespace vextimestamp
