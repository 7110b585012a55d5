#include "timestamp/Stamp.h"

#include <openssl/pem.h>

#include "HttpPeer.h"
#include "Row.h"
#include "timestamp/Cms.h"
#include "timestamp/OpenSsl.h"

namespace vextimestamp {
namespace {

using namespace std::chrono_literals;

Settings SettingsFor(std::vector<std::string> authorities) {
    Settings settings;
    settings.authorities = std::move(authorities);
    settings.timeout = 60s;
    return settings;
}

TEST(Stamp, AddsATokenOfTheAuthority) {
    ScriptedPeer peer(ServeTimeStamps);
    Settings settings = SettingsFor({UrlOf(peer.Port())});
    settings.wanted = {"SHA384", kOtherPolicy};
    settings.trusted = StoreOf("root");
    const Bytes cms = World::Get().Signature();
    const Bytes stamped = Stamp(cms, settings);
    const std::vector<Bytes> tokens = TokensOf(stamped);
    ASSERT_EQ(tokens.size(), 1U);
    const TokenFacts facts = CheckToken(tokens[0], SignatureValueOf(cms), settings.trusted.get(), nullptr);
    EXPECT_EQ(facts.strDigest, "SHA384");
    EXPECT_EQ(facts.strPolicy, kOtherPolicy);
}

TEST(Stamp, ComesFromTheSecondAuthorityIfTheFirstIsDead) {
    const SilentPort dead(SilentPort::Kind::kFull);
    ScriptedPeer peer(ServeTimeStamps);
    Settings settings = SettingsFor({UrlOf(dead.Port()), UrlOf(peer.Port())});
    settings.timeout = 10s;  // of which the dead one gets a half
    EXPECT_EQ(TokensOf(Stamp(World::Get().Signature(), settings)).size(), 1U);
}

TEST(Stamp, ComesFromTheFirstAuthorityIfThatServes) {
    int cAsked = 0;
    ScriptedPeer first(ServeTimeStamps);
    ScriptedPeer second([&](PeerConnection& connection) {
        ++cAsked;
        ServeTimeStamps(connection);
    });
    Stamp(World::Get().Signature(), SettingsFor({UrlOf(first.Port()), UrlOf(second.Port())}));
    second.Finish();
    EXPECT_EQ(cAsked, 0);
}

TEST(Stamp, NamesWhatEachAuthorityDidWrong) {
    const SilentPort refusing(SilentPort::Kind::kRefusing);
    ScriptedPeer page([](PeerConnection& connection) {
        ReceiveRequest(connection);
        connection.Send("HTTP/1.0 404 Not Found\r\n\r\n");
    });
    const std::string strFault = FaultOf([&] {
        Stamp(World::Get().Signature(), SettingsFor({UrlOf(refusing.Port()), UrlOf(page.Port()), "ftp://x\n/"}));
    });
    EXPECT_THAT(strFault, testing::StartsWith(UrlOf(refusing.Port()) + ": there is no connection"));
    EXPECT_THAT(strFault, testing::HasSubstr("; " + UrlOf(page.Port()) + ": the answer is HTTP 404 Not Found"));
    EXPECT_THAT(strFault, testing::HasSubstr(R"(; ftp://x\n/: )"));
}

struct LieRow : Row {
    std::function<Bytes(const Bytes& request)> reply;
    std::string strFault;
};

class LyingAuthority : public testing::TestWithParam<LieRow> {};

TEST_P(LyingAuthority, GivesNoStamp) {
    ScriptedPeer peer([](PeerConnection& connection) {
        const Bytes request = BytesOf(ReceiveRequest(connection));
        connection.Send(AnswerOf(TextOf(GetParam().reply(request))));
    });
    Settings settings = SettingsFor({UrlOf(peer.Port())});
    settings.wanted.strPolicy = kPolicy;
    settings.trusted = StoreOf("root");
    EXPECT_THAT(FaultOf([&] { Stamp(World::Get().Signature(), settings); }), testing::HasSubstr(GetParam().strFault));
}

INSTANTIATE_TEST_SUITE_P(
    Lies, LyingAuthority,
    testing::Values(LieRow{{"AnotherSignature"},
                           [](const Bytes&) { return World::Get().Reply(MakeRequest(BytesOf("other"), {}).der); },
                           "another signature"},
                    LieRow{{"AnotherNonce"},
                           [](const Bytes& request) {
                               Request other = ReadRequest(request);
                               std::string strDer = TextOf(other.der);
                               const std::string strNonce = TextOf(other.nonce);
                               strDer.replace(strDer.find(strNonce), strNonce.size(),
                                              std::string(strNonce.size(), '\x11'));
                               return World::Get().Reply(BytesOf(strDer));
                           },
                           "another nonce"},
                    LieRow{{"TrailingBytes"},
                           [](const Bytes& request) {
                               Bytes reply = World::Get().Reply(request);
                               reply.push_back(0);
                               return reply;
                           },
                           "behind it"},
                    LieRow{{"TheRequest"}, [](const Bytes& request) { return request; }, "no time-stamp reply"},
                    LieRow{{"Nothing"}, [](const Bytes&) { return BytesOf("x"); }, "no time-stamp reply"}),
    RowName);

TEST(Stamp, OfAnAuthorityThatIsNotTrustedIsRefused) {
    ScriptedPeer peer(ServeTimeStamps);
    Settings settings = SettingsFor({UrlOf(peer.Port())});
    settings.trusted = StoreOf("stranger");
    EXPECT_THAT(FaultOf([&] { Stamp(World::Get().Signature(), settings); }),
                testing::HasSubstr("leads to no trusted certificate"));
}

TEST(Stamp, AsksNobodyIfTheWishOrTheSignatureIsWrong) {
    int cAsked = 0;
    ScriptedPeer peer([&](PeerConnection&) { ++cAsked; });
    Settings settings = SettingsFor({UrlOf(peer.Port())});
    settings.wanted.strDigest = "MD5";
    EXPECT_THAT(FaultOf([&] { Stamp(World::Get().Signature(), settings); }),
                testing::StartsWith("a time stamp cannot"));
    EXPECT_THAT(FaultOf([&] { Stamp(BytesOf("x"), SettingsFor({UrlOf(peer.Port())})); }),
                testing::HasSubstr("CMS signature"));
    EXPECT_THAT(FaultOf([&] { Stamp(World::Get().Signature(), SettingsFor({})); }),
                testing::HasSubstr("no time-stamp authority"));
    peer.Finish();
    EXPECT_EQ(cAsked, 0);
}

}  // namespace
}  // namespace vextimestamp
