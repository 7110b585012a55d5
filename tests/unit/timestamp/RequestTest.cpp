#include "timestamp/Request.h"

#include <openssl/objects.h>

#include <set>

#include "Row.h"
#include "TimeStampWorld.h"
#include "timestamp/Digests.h"

namespace vextimestamp {
namespace {

struct DigestRow : Row {
    std::string strWanted;
    std::string strDigest;
    std::string strCommand;  // for openssl dgst
};

class RequestDigest : public testing::TestWithParam<DigestRow> {};

TEST_P(RequestDigest, IsWhatTheOpensslCommandComputes) {
    const DigestRow& row = GetParam();
    const Request request = MakeRequest(kValue, {row.strWanted, ""});
    EXPECT_EQ(request.strDigest, row.strDigest);
    EXPECT_EQ(request.imprint, World::Get().Run("openssl dgst -" + row.strCommand + " -binary -out OUT IN", kValue));
    EXPECT_THAT(TextOf(request.der), testing::HasSubstr(TextOf(request.imprint)));
}

INSTANTIATE_TEST_SUITE_P(Digests, RequestDigest,
                         testing::Values(DigestRow{{"Sha256"}, "SHA256", "SHA256", "sha256"},
                                         DigestRow{{"Sha256WithHyphen"}, "SHA-256", "SHA256", "sha256"},
                                         DigestRow{{"LowerCase"}, "sha384", "SHA384", "sha384"},
                                         DigestRow{{"Sha512"}, "SHA512", "SHA512", "sha512"},
                                         DigestRow{{"Sha512Of256"}, "SHA512-256", "SHA512-256", "sha512-256"},
                                         DigestRow{{"Sha3"}, "SHA3-256", "SHA3-256", "sha3-256"}),
                         RowName);

struct WantedRow : Row {
    Wanted wanted;
    std::string strFault;
};

class RefusedRequest : public testing::TestWithParam<WantedRow> {};

TEST_P(RefusedRequest, SaysWhatToUse) {
    EXPECT_THAT(FaultOf([] { MakeRequest(kValue, GetParam().wanted); }), testing::HasSubstr(GetParam().strFault));
}

INSTANTIATE_TEST_SUITE_P(
    Wanted, RefusedRequest,
    testing::Values(WantedRow{{"Sha1"}, {"SHA1", ""}, "use one of: SHA256, "},
                    WantedRow{{"Md5"}, {"MD5", ""}, "\"MD5\""}, WantedRow{{"TooShort"}, {"SHA224", ""}, "use one of"},
                    WantedRow{{"Unknown"}, {"x\ny", ""}, R"("x\ny")"}, WantedRow{{"NoDigest"}, {"", ""}, "use one of"},
                    WantedRow{{"PolicyByName"}, {"SHA256", "timeStamping"}, "no object identifier"},
                    WantedRow{{"PolicyWithDotAtEnd"}, {"SHA256", "1.2.3."}, "no object identifier"},
                    WantedRow{{"PolicyWithBlank"}, {"SHA256", "1.2 3"}, "no object identifier"}),
    RowName);

TEST(Request, IsReadByTheOpensslCommand) {
    const Request request = MakeRequest(kValue, {"SHA256", kPolicy});
    // OpenSSL's usual configuration has a name for the policy.
    const std::string strText =
        TextOf(World::Get().Run("OPENSSL_CONF=/dev/null openssl ts -query -in IN -text -out OUT", request.der));
    EXPECT_THAT(strText, testing::HasSubstr("Version: 1"));
    EXPECT_THAT(strText, testing::HasSubstr("Hash Algorithm: sha256"));
    EXPECT_THAT(strText, testing::HasSubstr(std::string("Policy OID: ") + kPolicy));
    EXPECT_THAT(strText, testing::HasSubstr("Certificate required: yes"));
    EXPECT_THAT(strText, testing::HasSubstr("Nonce: 0x"));
}

TEST(Request, HasANonceOfSixteenBytesThatIsNeverTheSame) {
    std::set<Bytes> nonces;
    constexpr std::size_t kRequests = 100;
    for (std::size_t i = 0; i < kRequests; ++i) {
        const Bytes nonce = MakeRequest(kValue, {}).nonce;
        EXPECT_EQ(nonce.size(), 16U);
        nonces.insert(nonce);
    }
    EXPECT_EQ(nonces.size(), kRequests);
}

TEST(Request, IsReadBack) {
    for (const char* const pszPolicy : {"", kPolicy}) {
        const Request made = MakeRequest(kValue, {"SHA384", pszPolicy});
        const Request read = ReadRequest(made.der);
        EXPECT_EQ(read.der, made.der);
        EXPECT_EQ(read.imprint, made.imprint);
        EXPECT_EQ(read.strDigest, made.strDigest);
        EXPECT_EQ(read.nonce, made.nonce);
        EXPECT_EQ(read.strPolicy, pszPolicy);
    }
}

struct BytesRow : Row {
    std::string strOptions;  // of openssl ts -query
    std::string strFault;
};

class ForeignRequest : public testing::TestWithParam<BytesRow> {};

TEST_P(ForeignRequest, IsRefused) {
    const Bytes request = World::Get().Run("openssl ts -query -data IN -out OUT " + GetParam().strOptions, kValue);
    EXPECT_THAT(FaultOf([&] { ReadRequest(request); }), testing::HasSubstr(GetParam().strFault));
}

INSTANTIATE_TEST_SUITE_P(Options, ForeignRequest,
                         testing::Values(BytesRow{{"NoNonce"}, "-no_nonce -cert -sha256", "nonce"},
                                         BytesRow{{"NoCertificate"}, "-sha256", "certificate"},
                                         BytesRow{{"Sha1"}, "-cert -sha1", "digest"}),
                         RowName);

TEST(Request, ThatTheOpensslCommandMadeInOurFormIsRead) {
    const Bytes request = World::Get().Run("openssl ts -query -data IN -out OUT -cert -sha256", kValue);
    EXPECT_EQ(ReadRequest(request).imprint, MakeRequest(kValue, {}).imprint);
}

TEST(Request, WithMoreOrLessBytesIsRefused) {
    const Bytes request = MakeRequest(kValue, {}).der;
    Bytes longer = request;
    longer.push_back(0);
    EXPECT_NE(FaultOf([&] { ReadRequest(longer); }), "");
    for (std::size_t cb = 0; cb < request.size(); ++cb) {
        EXPECT_NE(FaultOf([&] { ReadRequest(std::span(request).first(cb)); }), "") << cb;
    }
}

}  // namespace
}  // namespace vextimestamp
