// Time stamps of a P7: openssl makes them, "vexsign verify" checks them.
#include <gtest/gtest.h>

#include "KnownReports.h"
#include "Row.h"
#include "VerifyWorld.h"
#include "timestamp/Cms.h"
#include "vexsign/AsBytes.h"
#include "vexsign/verify/Time.h"
#include "vexsign/verify/Verification.h"

namespace vexsign::verify {
namespace {

constexpr std::time_t kYears = 20 * 365 * 24 * 3600;

std::string TextOfBytes(const vextimestamp::Bytes& bytes) {
    return {bytes.begin(), bytes.end()};
}

// A good signature by "ec", whose certificate is valid for weeks. bClaims: it says when it was made.
std::string Sign(bool bClaims = false) {
    const TestSigner signer = SignerOf("ec");
    Recipe recipe;
    recipe.pSigner = &signer;
    recipe.attributes = {ContentTypeAttribute(), DigestAttribute(DigestOf("SHA256", kContent)),
                         BindingAttribute(signer.certificate.get())};
    if (bClaims) {
        recipe.attributes.push_back(TimeAttribute(UtcTime(std::time(nullptr))));
    }
    return MakeSignedData({MakeSigner(recipe, kContent)}, {signer.certificate.get()}, nullptr);
}

// The authority, whose certificate is tsa.crt.
const TempDirectory& Authority() {
    static const bool s_bMade = [] {
        const World& world = World::Get();
        world.Write("tsa.cnf",
                    "[req]\ndistinguished_name=dn\nprompt=no\nx509_extensions=ext\n[dn]\nO=Stamps\nCN=TSA\n"
                    "[ext]\nbasicConstraints=critical,CA:FALSE\nkeyUsage=critical,digitalSignature\n"
                    "extendedKeyUsage=critical,timeStamping\n"
                    "[tsa]\nserial=tsa.serial\nsigner_cert=tsa.crt\nsigner_key=tsa.key\nsigner_digest=sha256\n"
                    "default_policy=1.2.3.4.1\ndigests=sha256\ness_cert_id_alg=sha256\n");
        world.Write("tsa.serial", "0A\n");
        RequireCommand("cd " + world.Directory().Path() +
                       " && openssl req -x509 -nodes -newkey ec -pkeyopt ec_paramgen_curve:P-256 -days 30"
                       " -config tsa.cnf -keyout tsa.key -out tsa.crt");
        return true;
    }();
    static_cast<void>(s_bMade);
    return World::Get().Directory();
}

std::string TokenFor(const std::string& strSignature) {
    const TempDirectory& directory = Authority();
    directory.Write("value", TextOfBytes(vextimestamp::SignatureValueOf(AsBytes(strSignature))));
    RequireCommand("cd " + directory.Path() +
                   " && openssl ts -query -data value -sha256 -cert -out tsq"
                   " && openssl ts -reply -config tsa.cnf -section tsa -queryfile tsq -token_out -out token");
    return ReadWholeFile(directory.Path("token"));
}

std::string WithToken(const std::string& strSignature, const std::string& strToken) {
    return TextOfBytes(vextimestamp::WithToken(AsBytes(strSignature), AsBytes(strToken)));
}

// strTrusted: whose signatures are trusted; empty: no chain is checked. bAuthority: the authority is trusted by name.
Report VerifyAt(const std::string& strSignature, std::time_t nMoment, bool bAuthority,
                const std::string& strTrusted = "root") {
    Settings settings = SettingsFor(strTrusted, nMoment);
    if (bAuthority) {
        settings.stampStore = StoreOfFiles({Authority().Path("tsa.crt")});
    }
    const Reader reader = ReaderOf(std::string_view(kContent));
    return Verify(strSignature, settings, &reader);
}

struct StampCase : Row {
    const char* pszTrusted;
    bool bAuthority;
    std::time_t nLater;
    bool bGood;
    bool bProven;
};

class VerifyStampsText : public testing::TestWithParam<StampCase> {};

TEST_P(VerifyStampsText, SaysWhoVouchesForTheTime) {
    const StampCase& row = GetParam();
    const std::string strPlain = Sign(true);
    const std::string strStamped = WithToken(strPlain, TokenFor(strPlain));
    const Report report = VerifyAt(strStamped, std::time(nullptr) + row.nLater, row.bAuthority, row.pszTrusted);
    EXPECT_EQ(report.IsGood(), row.bGood) << TextOf(report);
    ASSERT_EQ(report.signers.size(), 1U);
    ASSERT_EQ(report.signers[0].stamps.size(), 1U);
    EXPECT_EQ(report.signers[0].stamps[0].bTrusted, row.bProven);
    ASSERT_TRUE(report.signers[0].time);
    EXPECT_EQ(report.signers[0].time->bProven, row.bProven);
    ExpectKnownReport(report, "Stamps.txt");
}

INSTANTIATE_TEST_SUITE_P(Trust, VerifyStampsText,
                         testing::Values(StampCase{{"NoChainIsChecked"}, "", false, 0, true, false},
                                         StampCase{{"NoChainButTheAuthority"}, "", true, 0, true, true},
                                         StampCase{{"OtherRoot"}, "root", false, 0, true, false},
                                         StampCase{{"OtherRootLater"}, "root", false, kYears, false, false},
                                         StampCase{{"TheAuthority"}, "root", true, 0, true, true},
                                         StampCase{{"TheAuthorityLater"}, "root", true, kYears, true, true}),
                         RowName);

TEST(VerifyStamps, ProveTheTimeIfTheAuthorityIsTrusted) {
    const std::time_t nBefore = std::time(nullptr);
    const std::string strPlain = Sign();
    const std::string strStamped = WithToken(strPlain, TokenFor(strPlain));
    const std::time_t nLater = nBefore + kYears;
    EXPECT_EQ(FailuresOf(VerifyAt(strPlain, nLater, true)), "validity chain");
    EXPECT_EQ(FailuresOf(VerifyAt(strStamped, nLater, false)), "validity chain");
    EXPECT_EQ(FailuresOf(VerifyAt(strStamped, std::time(nullptr), false)), "");

    const Report report = VerifyAt(strStamped, nLater, true);
    EXPECT_TRUE(report.IsGood()) << TextOf(report);
    const SignerReport& signer = report.signers.at(0);
    ASSERT_TRUE(signer.time);
    EXPECT_TRUE(signer.time->bProven);
    EXPECT_EQ(signer.time->strClaimed, "");
    ASSERT_EQ(signer.stamps.size(), 1U);
    EXPECT_EQ(signer.stamps[0].strAuthority, "CN=TSA,O=Stamps");
    EXPECT_EQ(signer.stamps[0].strPolicy, "1.2.3.4.1");
    EXPECT_TRUE(signer.stamps[0].bTrusted);
    EXPECT_EQ(signer.stamps[0].strTime, signer.time->strTime);
    const std::optional<std::time_t> moment = ParseMoment(signer.time->strTime);
    ASSERT_TRUE(moment);
    EXPECT_GE(*moment, nBefore);
    EXPECT_LE(*moment, std::time(nullptr));
}

TEST(VerifyStamps, MayComeTooLate) {
    const TestSigner signer = SignerOf("expired", "ec");
    Recipe recipe;
    recipe.pSigner = &signer;
    recipe.attributes = {ContentTypeAttribute(), DigestAttribute(DigestOf("SHA256", kContent))};
    const std::string strPlain = MakeSignedData({MakeSigner(recipe, kContent)}, {signer.certificate.get()}, nullptr);
    const Report report = VerifyAt(WithToken(strPlain, TokenFor(strPlain)), std::time(nullptr), true, "expired");
    EXPECT_EQ(FailuresOf(report), "validity chain");
    ExpectKnownReport(report, "Stamps.txt");
}

TEST(VerifyStamps, OfAnotherSignatureMakeItBad) {
    const std::string strSignature = Sign();
    const std::string strOther = TokenFor(Sign());
    // Also beside a good one, and without anybody who is trusted.
    for (const std::string& strStamped :
         {WithToken(strSignature, strOther), WithToken(WithToken(strSignature, TokenFor(strSignature)), strOther)}) {
        const Report report = VerifyAt(strStamped, std::time(nullptr), true);
        EXPECT_EQ(FailuresOf(report), "stamp");
        // Advice for whoever asks for a time stamp is none here.
        EXPECT_NE(TextOf(report).find(": its imprint is not the digest of this one\n"), std::string::npos)
            << TextOf(report);
        EXPECT_EQ(FailuresOf(VerifyAt(strStamped, std::time(nullptr), false)), "stamp");
    }
}

TEST(VerifyStamps, MustNotBeInTheFuture) {
    const std::string strSignature = Sign();
    const std::string strStamped = WithToken(strSignature, TokenFor(strSignature));
    constexpr std::time_t kMargin = 60;
    const std::time_t nNow = std::time(nullptr);
    const Report report = VerifyAt(strStamped, nNow - kClockError - kMargin, true);
    EXPECT_NE((" " + FailuresOf(report) + " ").find(" stamp "), std::string::npos) << TextOf(report);
    EXPECT_FALSE(report.signers.at(0).time);
}

TEST(VerifyStamps, AreCountedFirst) {
    std::string strSignature = Sign();
    const std::string strToken = TokenFor(strSignature);
    constexpr int kMost = 16;
    for (int i = 0; i < kMost; ++i) {
        strSignature = WithToken(strSignature, strToken);
    }
    const Report most = VerifyAt(strSignature, std::time(nullptr), true);
    EXPECT_TRUE(most.IsGood()) << TextOf(most);
    EXPECT_EQ(most.signers.at(0).stamps.size(), 16U);
    const Report more = VerifyAt(WithToken(strSignature, strToken), std::time(nullptr), true);
    EXPECT_EQ(FailuresOf(more), "stamp");
    EXPECT_TRUE(more.signers.at(0).stamps.empty());
}

}  // namespace
}  // namespace vexsign::verify
