// The certificates of issuers in P7 signatures. openssl and GnuTLS, which know only the root, verify them.
#include <gtest/gtest.h>

#include <algorithm>

#include "Row.h"
#include "TestChain.h"
#include "ToolkitClient.h"

namespace {

constexpr int kNoCertificate = 0;
constexpr int kWithChain = 1;
constexpr int kSignerOnly = 2;

class ChainTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        s_pDirectory = new TempDirectory;
        MakeChains(*s_pDirectory);
    }
    static void TearDownTestSuite() { delete s_pDirectory; }

    static std::string In() { return "cd " + s_pDirectory->Path() + " && "; }

    // A PEM file with the signer's key and these certificates, in this order.
    static std::string MakeStore(const std::string& strSigner, const std::vector<std::string>& certificates) {
        std::string strPem = ReadWholeFile(s_pDirectory->Path(strSigner + ".key"));
        for (const std::string& strName : certificates) {
            strPem += ReadWholeFile(s_pDirectory->Path(strName + ".crt"));
        }
        return s_pDirectory->Write("store.pem", strPem);
    }

    static bool Sign(const ToolkitClient& client, int nCertificates = kWithChain) {
        const auto signature = client.SignP7("text", 0, 1, nCertificates);
        s_pDirectory->Write("text", "text");
        s_pDirectory->Write("p7.b64", signature.value_or(""));
        EXPECT_TRUE(signature) << client.Message();
        return signature.has_value() && RunCommand(In() + "base64 -d p7.b64 >p7").nStatus == 0;
    }

    // As somebody who has the signature, the text and this root.
    static CommandResult Verify(const std::string& strRoot) {
        return RunCommand(In() + "openssl cms -verify -binary -inform DER -in p7 -content text -out /dev/null " +
                          "-purpose smimesign -CAfile " + strRoot + ".crt && certtool --p7-verify --inder " +
                          "--infile p7 --load-data text --load-ca-certificate " + strRoot + ".crt");
    }

    // The names of the certificates in the signature, in alphabetical order.
    static std::vector<std::string> Included() {
        std::vector<std::string> names;
        for (const char* pszName : {"alone", "below", "ca1", "ca2", "cross", "expired", "leaf2", "leaf3", "leaf4",
                                    "leaf5", "next", "other-root", "root", "short", "stranger", "young"}) {
            const std::string strFile = pszName;
            if (RunCommand(In() + "[ -e " + strFile +
                           ".crt ] && openssl pkcs7 -inform DER -in p7 -print_certs -out all.pem && openssl x509 -in " +
                           strFile + ".crt -outform DER | base64 -w0 >one && [ -s one ] && " +
                           "sed -e '/^-----/s/.*/:/' all.pem | tr -d '\\n' | grep -qF \"$(cat one)\"")
                    .nStatus == 0) {
                names.push_back(strFile);
            }
        }
        return names;
    }

    static TempDirectory* s_pDirectory;
};
TempDirectory* ChainTest::s_pDirectory = nullptr;

using Names = std::vector<std::string>;

struct ChainRow : Row {
    std::string strSigner;
    Names store;
    Names included;
    std::string strRoot = "root";  // the only certificate that the verifier knows; empty: it cannot verify
};

class Chains : public ChainTest, public testing::WithParamInterface<ChainRow> {};

TEST_P(Chains, AreIncludedWithoutTheRoot) {
    const std::string strPem = MakeStore(GetParam().strSigner, GetParam().store);
    const std::string strPkcs12 = s_pDirectory->Path("store.p12");
    RequireCommand("openssl pkcs12 -export -in " + strPem + " -out " + strPkcs12 + " -passout pass:1234");
    for (const std::string& strUri : {strPem + "?chain=store", strPkcs12 + "?pin-value=1234&chain=store"}) {
        const ToolkitClient client("file:" + strUri);
        ASSERT_TRUE(client.IsOpen()) << client.Message();
        EXPECT_EQ(client.Records().size(), 1U);
        ASSERT_TRUE(Sign(client));
        EXPECT_EQ(Included(), GetParam().included) << strUri;
        if (!GetParam().strRoot.empty()) {
            const CommandResult verified = Verify(GetParam().strRoot);
            EXPECT_EQ(verified.nStatus, 0) << strUri << verified.strOutput;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    , Chains,
    testing::Values(
        ChainRow{"OfTwo", "leaf2", {"leaf2", "root"}, {"leaf2"}},
        ChainRow{"OfThree", "leaf3", {"leaf3", "ca1", "root"}, {"ca1", "leaf3"}},
        ChainRow{"OfFour", "leaf4", {"leaf4", "ca2", "ca1", "root"}, {"ca1", "ca2", "leaf4"}},
        ChainRow{"WithoutRoot", "leaf4", {"leaf4", "ca2", "ca1"}, {"ca1", "ca2", "leaf4"}},
        ChainRow{"Shuffled", "leaf4", {"root", "ca1", "leaf4", "ca2"}, {"ca1", "ca2", "leaf4"}},
        ChainRow{"WithStrangers",
                 "leaf4",
                 {"stranger", "leaf3", "other-root", "ca2", "root", "ca1", "leaf4"},
                 {"ca1", "ca2", "leaf4"}},
        ChainRow{"CrossedFirst", "leaf4", {"cross", "leaf4", "ca2", "ca1", "root"}, {"ca1", "ca2", "leaf4"}},
        ChainRow{
            "CrossedOnly", "leaf4", {"cross", "leaf4", "ca2", "other-root"}, {"ca2", "cross", "leaf4"}, "other-root"},
        ChainRow{"WithoutIssuer", "leaf4", {"leaf4", "ca1", "root"}, {"leaf4"}, ""},
        ChainRow{"SelfSigned", "alone", {"alone", "root"}, {"alone"}, "alone"}),
    RowName);

// The root's next key, certified with its present one. Both certificates have the same name, and no key identifiers.
// A verifier that knows only the present root needs this certificate. It was left out as if it were a root.
TEST_F(ChainTest, ACertificateForTheRootsNextKeyIsNoRoot) {
    MakeIssued(*s_pDirectory, {"old", "old", "old", "Aging", "CA:TRUE", 30, false});
    MakeIssued(*s_pDirectory, {"next", "next", "old", "Aging", "CA:TRUE", 30, false});
    MakeIssued(*s_pDirectory, {"leaf5", "leaf5", "next", "Leaf", "CA:FALSE", 30, false});
    for (const Names& store : {Names{"leaf5", "next"}, Names{"leaf5", "old", "next"}}) {
        const ToolkitClient client("file:" + MakeStore("leaf5", store) + "?chain=store");
        ASSERT_TRUE(Sign(client));
        EXPECT_EQ(Included(), (Names{"leaf5", "next"}));
    }
}

// ca1 is certified by two roots. The one in the store decides.
TEST_F(ChainTest, LeadsToTheRootInTheStore) {
    for (const char* pszRoot : {"root", "other-root"}) {
        const std::string strStore = MakeStore("leaf4", {"cross", "leaf4", "ca2", "ca1", pszRoot});
        const ToolkitClient client("file:" + strStore + "?chain=store");
        ASSERT_TRUE(Sign(client));
        const CommandResult verified = Verify(pszRoot);
        EXPECT_EQ(verified.nStatus, 0) << pszRoot << ": " << verified.strOutput;
    }
}

TEST_F(ChainTest, IsIncludedOnlyOnRequest) {
    const std::string strStore = MakeStore("leaf3", {"leaf3", "ca1", "root"});
    const ToolkitClient without("file:" + strStore);
    ASSERT_TRUE(Sign(without));
    EXPECT_EQ(Included(), (Names{"leaf3"}));
    const ToolkitClient with("file:" + strStore + "?chain=store");
    ASSERT_TRUE(Sign(with, kSignerOnly));
    EXPECT_EQ(Included(), (Names{"leaf3"}));
    ASSERT_TRUE(Sign(with, kNoCertificate));
    EXPECT_EQ(Included(), Names{});
    ASSERT_TRUE(Sign(with, -1));
    EXPECT_EQ(Included(), (Names{"ca1", "leaf3"}));
}

TEST_F(ChainTest, IsListedOnRequest) {
    const std::string strStore = "file:" + MakeStore("leaf4", {"ca1", "leaf4", "ca2", "root"});
    const auto field = [](const Names& names) {
        std::string strField;
        for (const std::string& strName : names) {
            strField += strField.empty() ? "" : ",";
            strField += RunCommand(In() + "openssl x509 -in " + strName + ".crt -outform DER | base64 -w0").strOutput;
        }
        return strField;
    };
    for (const auto& [strAttributes, names] : {std::pair<std::string, Names>{"", {"leaf4"}},
                                               {"&chain=store", {"leaf4", "ca2", "ca1"}},
                                               {"&chain=root", {"leaf4", "ca2", "ca1", "root"}}}) {
        const auto records = ToolkitClient(strStore + "?list=certificates" + strAttributes).Records();
        ASSERT_EQ(records.size(), 1U);
        ASSERT_EQ(records[0].size(), 9U);
        EXPECT_EQ(records[0].back(), field(names)) << strAttributes;
        auto plain = ToolkitClient(strStore + (strAttributes.empty() ? "" : "?" + strAttributes.substr(1))).Records();
        plain.at(0).insert(plain.at(0).end(), {"", field(names)});
        EXPECT_EQ(records, plain) << strAttributes;
    }
}

TEST_F(ChainTest, IncludesTheRootOnRequest) {
    const ToolkitClient client("file:" + MakeStore("leaf3", {"leaf3", "ca1", "root"}) + "?chain=root");
    ASSERT_TRUE(Sign(client));
    EXPECT_EQ(Included(), (Names{"ca1", "leaf3", "root"}));
}

TEST_F(ChainTest, ComesFromAnotherFile) {
    const std::string strStore = MakeStore("leaf4", {"leaf4"});
    RequireCommand(In() + "cat stranger.crt ca1.crt ca2.crt >'more & more.pem'");
    const ToolkitClient client("file:" + strStore +
                               "?chain=store&chain-source=file:" + s_pDirectory->Path("more%20%26%20more.pem"));
    ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
    EXPECT_EQ(client.Records().size(), 1U);
    ASSERT_TRUE(Sign(client));
    EXPECT_EQ(Included(), (Names{"ca1", "ca2", "leaf4"}));
    EXPECT_EQ(Verify("root").nStatus, 0);
}

TEST_F(ChainTest, KeysOfTheOtherFileDoNotSign) {
    RequireCommand(In() + "cat leaf3.key leaf3.crt ca1.crt >with-key.pem");
    const ToolkitClient client("file:" + MakeStore("leaf4", {"leaf4", "ca2"}) +
                               "?chain=store&chain-source=" + s_pDirectory->Path("with-key.pem"));
    EXPECT_EQ(client.Records().size(), 1U);
}

TEST_F(ChainTest, ReportsAnUnusableFile) {
    const std::string strStore = "file:" + MakeStore("leaf4", {"leaf4"}) + "?chain=store&chain-source=";
    s_pDirectory->Write("empty.pem", "");
    RequireCommand(In() + "openssl pkcs8 -topk8 -in leaf3.key -out encrypted.key -passout pass:other");
    struct Case {
        const char* pszFile;
        INT nNumber;
    };
    for (const Case& c : {Case{"missing.pem", VCTK_E_STORE_NOT_FOUND}, Case{"empty.pem", VCTK_E_STORE_FORMAT},
                          Case{"leaf4.key", VCTK_E_STORE_FORMAT}, Case{"leaf4.crt", VCTK_E_STORE_FORMAT},
                          Case{"encrypted.key", VCTK_E_STORE_FORMAT}, Case{"", VCTK_E_STORE_UNREADABLE}}) {
        EXPECT_FALSE(ToolkitClient(strStore + s_pDirectory->Path(c.pszFile)).IsOpen()) << c.pszFile;
        EXPECT_EQ(VCTK_GetLastError(nullptr), c.nNumber) << c.pszFile;
        EXPECT_NE(ErrorMessage(nullptr).find("chain-source: "), std::string::npos) << ErrorMessage(nullptr);
    }
}

// "top" certified ca2 itself, so this chain is shorter than that through ca1.
TEST_F(ChainTest, IsTheShortestOne) {
    MakeIssued(*s_pDirectory, {"top", "top", "top"});
    MakeIssued(*s_pDirectory, {"short", "ca2", "top", "ca2"});
    const ToolkitClient client("file:" + MakeStore("leaf4", {"ca1", "root", "ca2", "leaf4", "top", "short"}) +
                               "?chain=store");
    ASSERT_TRUE(Sign(client));
    EXPECT_EQ(Included(), (Names{"leaf4", "short"}));
    EXPECT_EQ(Verify("top").nStatus, 0);
}

// Of two chains of one length, the first breaks the path length that "narrow" allows.
TEST_F(ChainTest, IsAValidOne) {
    MakeIssued(*s_pDirectory, {"top", "top", "top"});
    MakeIssued(*s_pDirectory, {"narrow", "ca1", "top", "ca1", "CA:TRUE,pathlen:0"});
    const ToolkitClient client("file:" + MakeStore("leaf4", {"leaf4", "ca2", "narrow", "top", "ca1", "root"}) +
                               "?chain=store");
    ASSERT_TRUE(Sign(client));
    EXPECT_EQ(Included(), (Names{"ca1", "ca2", "leaf4"}));
    EXPECT_EQ(Verify("root").nStatus, 0);
}

// "impostor" has the root's name, and no key identifier that would tell the two apart.
TEST_F(ChainTest, EndsBeforeAnIssuerWhoseNameAloneFits) {
    MakeIssued(*s_pDirectory, {"impostor", "impostor", "other-root", "Root"});
    RequireCommand(In() +
                   "sed -i s/KeyIdentifier=.*/KeyIdentifier=none/ impostor.cnf && openssl req -x509 -new -config "
                   "impostor.cnf -key " +
                   "impostor.key -days 30 -CA other-root.crt -CAkey other-root.issuer-key -out impostor.crt");
    const ToolkitClient client("file:" + MakeStore("leaf3", {"leaf3", "ca1", "impostor"}) + "?chain=store");
    ASSERT_TRUE(Sign(client));
    EXPECT_EQ(Included(), (Names{"ca1", "leaf3"}));
}

// Two authorities of one name that certified each other: the search ends, and soon.
TEST_F(ChainTest, EndsWhereAuthoritiesCertifyEachOther) {
    MakeIssued(*s_pDirectory, {"left", "left", "root"});
    MakeIssued(*s_pDirectory, {"right", "right", "left"});
    Names names = {"leaf5", "left", "right"};
    for (int i = 0; i < 8; ++i) {
        const std::string strNumber = std::to_string(i);
        MakeIssued(*s_pDirectory, {"left" + strNumber, "left", "right", "left"});
        MakeIssued(*s_pDirectory, {"right" + strNumber, "right", "left", "right"});
        names.insert(names.end(), {"left" + strNumber, "right" + strNumber});
    }
    MakeIssued(*s_pDirectory, {"leaf5", "leaf5", "right", "Leaf", "CA:FALSE"});
    const ToolkitClient client("file:" + MakeStore("leaf5", names) + "?chain=store");
    EXPECT_TRUE(Sign(client));
}

TEST_F(ChainTest, HasAtMostTenCertificates) {
    Names names = {"deepest", "root"};
    std::string strIssuer = "root";
    for (int i = 1; i <= 10; ++i) {
        const std::string strName = "deep" + std::to_string(i);
        MakeIssued(*s_pDirectory, {strName, strName, strIssuer});
        names.push_back(strName);
        strIssuer = strName;
    }
    MakeIssued(*s_pDirectory, {"deepest", "deepest", strIssuer, "Leaf", "CA:FALSE"});
    const ToolkitClient client("file:" + MakeStore("deepest", names) + "?chain=store");
    ASSERT_TRUE(Sign(client));
    EXPECT_EQ(RunCommand(In() + "openssl pkcs7 -inform DER -in p7 -print_certs | grep -c BEGIN").strOutput, "10\n");
}

// A verifier may know the issuer's new certificate.
TEST_F(ChainTest, EndsBeforeAnExpiredIssuer) {
    MakeCertificate(s_pDirectory->Path(), "ca2.key", "expired", "/CN=expired", "20200101000000Z", "20200201000000Z",
                    "-cert root.crt -keyfile root.issuer-key -extfile ca2.cnf -extensions ext");
    RequireCommand(In() + "cp ca2.key expired.issuer-key");
    MakeIssued(*s_pDirectory, {"below", "below", "expired"});
    MakeIssued(*s_pDirectory, {"young", "young", "below", "Leaf", "CA:FALSE"});
    const ToolkitClient client("file:" + MakeStore("young", {"young", "below", "expired"}) + "?chain=store");
    ASSERT_TRUE(Sign(client));
    EXPECT_EQ(Included(), (Names{"below", "young"}));
}

}  // namespace
