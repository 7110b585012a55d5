// RSASSA-PSS, Ed25519 and Ed448, and digests that the caller made: what signs how, and what is refused with which
// reason.
#include <gtest/gtest.h>

#include <tuple>

#include "KnownText.h"
#include "Row.h"
#include "TestStore.h"
#include "ToolkitClient.h"

namespace {

constexpr const char* kContent = "some content\r\n";

std::string PssKey(const std::string& strDigest, const std::string& strMaskDigest, int cbSalt) {
    return "rsa-pss -pkeyopt rsa_keygen_bits:2048 -pkeyopt rsa_pss_keygen_md:" + strDigest +
           " -pkeyopt rsa_pss_keygen_mgf1_md:" + strMaskDigest +
           " -pkeyopt rsa_pss_keygen_saltlen:" + std::to_string(cbSalt);
}

class SchemeTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        s_pDirectory = new TempDirectory;
        for (const TestIdentity& identity : {
                 TestIdentity{"rsa", "rsa:2048"},
                 {"p256", "ec -pkeyopt ec_paramgen_curve:P-256"},
                 {"p521", "ec -pkeyopt ec_paramgen_curve:P-521"},
                 {"pss", "rsa-pss -pkeyopt rsa_keygen_bits:2048"},
                 {"pss384", PssKey("sha384", "sha384", 48)},
                 {"pss-long-salt", PssKey("sha256", "sha256", 64)},
                 {"pss-other-mask", PssKey("sha256", "sha512", 32)},
                 {"ed25519", "ed25519"},
                 {"ed448", "ed448"},
             }) {
            MakeIdentity(*s_pDirectory, identity);
            MakePemStore(*s_pDirectory, identity.strName + ".pem", {identity.strName.c_str()});
        }
        s_pDirectory->Write("content", kContent);
    }
    static void TearDownTestSuite() { delete s_pDirectory; }

    static std::string Uri(const std::string& strKey) { return "file:" + s_pDirectory->Path(strKey + ".pem"); }

    static CommandResult Run(const std::string& strCommand) {
        return RunCommand("cd " + s_pDirectory->Path() + " && " + strCommand);
    }

    // The digest of the content in Base64; strOpenssl is the openssl command's name for it.
    static std::string DigestOf(const std::string& strOpenssl) {
        return Run("openssl dgst -" + strOpenssl + " -binary content | base64 -w0").strOutput;
    }

    // The command may use the files sig (decoded) and pub.
    static void ExpectAccepted(const std::string& strKey, const std::optional<std::string>& strSignature,
                               const std::string& strCommand) {
        ASSERT_TRUE(strSignature);
        s_pDirectory->Write("sig.b64", *strSignature);
        const CommandResult result =
            Run("base64 -d sig.b64 > sig && openssl x509 -in " + strKey + ".crt -noout -pubkey > pub && " + strCommand);
        EXPECT_EQ(result.nStatus, 0) << result.strOutput;
    }

    static std::string DigestVerify(const std::string& strOpenssl, bool bPss) {
        return "openssl dgst -" + strOpenssl + " -verify pub -signature sig " +
               (bPss ? "-sigopt rsa_padding_mode:pss -sigopt rsa_pss_saltlen:digest " : "") + "content";
    }

    static std::string CmsVerify(const std::string& strKey, bool bDetached) {
        return "openssl cms -verify -binary -cades -inform DER -in sig -out out -CAfile " + strKey + ".crt" +
               (bDetached ? " -content content" : "") + " && cmp out content";
    }

    // Succeeds when the P7 names RSASSA-PSS with a salt of so many bytes as its signature algorithm.
    static std::string HasSalt(const std::string& strOpenssl) {
        return "openssl cms -cmsout -print -inform DER -in sig > text && "
               "grep -A12 'signatureAlgorithm:' text | tail -12 | grep -q rsassaPss && "
               "cb=$(openssl dgst -" +
               strOpenssl +
               " -binary content | wc -c) && { [ $cb = 20 ] || "
               "openssl asn1parse -inform DER -in sig | grep -A14 rsassaPss | tail -15 | "
               "grep -q \"INTEGER *:$(printf %02X $cb)\"; }";
    }

    static TempDirectory* s_pDirectory;
};
TempDirectory* SchemeTest::s_pDirectory = nullptr;

struct Digest : Row {
    const char* pszName;
    const char* pszOpenssl;
    bool bEcdsaInEachCms;  // OpenSSL 3.0 also knows this digest with ECDSA in CMS
};

const Digest kDigests[] = {{"Sha224", "SHA-224", "sha224", true},
                           {"Sha256", "SHA-256", "sha256", true},
                           {"Sha384", "sha-384", "sha384", true},
                           {"Sha512", "SHA512", "sha512", true},
                           {"Sha512With224", "SHA-512/224", "sha512-224", false},
                           {"Sha512With256", "SHA512/256", "sha512-256", false},
                           {"Sha3With224", "SHA3-224", "sha3-224", false},
                           {"Sha3With256", "SHA3-256", "sha3-256", false},
                           {"Sha3With384", "SHA3-384", "sha3-384", false},
                           {"Sha3With512", "SHA3-512", "sha3-512", false}};

class SchemeWith : public SchemeTest, public testing::WithParamInterface<Digest> {};

// A certificate for RSASSA-PSS alone needs no "/PSS".
TEST_P(SchemeWith, PssIsVerifiedByOpenssl) {
    const char* const pszName = GetParam().pszName;
    const char* const pszOpenssl = GetParam().pszOpenssl;
    for (const auto& [pszKey, pszPadding] :
         {std::pair("rsa", "/PSS"), std::pair("rsa", "/pss"), std::pair("pss", "/PSS"), std::pair("pss", "")}) {
        SCOPED_TRACE(pszKey);
        const ToolkitClient client(Uri(pszKey));
        ASSERT_EQ(VCTK_SetDigestAlg(client.Handle(), (std::string(pszName) + pszPadding).c_str()), 0)
            << client.Message();
        ExpectAccepted(pszKey, client.SignP1(kContent), DigestVerify(pszOpenssl, true));
        for (const int nDetached : {0, 1}) {
            const auto strP7 = client.SignP7(kContent, 0, nDetached, 1);
            EXPECT_TRUE(strP7) << client.Message();
            ExpectAccepted(pszKey, strP7, CmsVerify(pszKey, nDetached != 0));
            ExpectAccepted(pszKey, strP7, HasSalt(pszOpenssl));
        }
    }
}

// PKCS #1 v1.5 is deterministic, so both ways give the same bytes.
TEST_P(SchemeWith, RsaP1OfADigestIsP1OfTheData) {
    const char* const pszName = GetParam().pszName;
    const char* const pszOpenssl = GetParam().pszOpenssl;
    const ToolkitClient client(Uri("rsa"));
    ASSERT_EQ(VCTK_SetDigestAlg(client.Handle(), pszName), 0);
    const auto strWhole = client.SignP1(kContent);
    ASSERT_TRUE(strWhole);
    for (const char* pszPrefix : {"prehashed:", "PREHASHED:"}) {
        ASSERT_EQ(VCTK_SetDigestAlg(client.Handle(), (std::string(pszPrefix) + pszName).c_str()), 0)
            << client.Message();
        EXPECT_EQ(client.SignP1(DigestOf(pszOpenssl), 1), strWhole) << client.Message();
    }
}

TEST_P(SchemeWith, ADigestIsSignedAsTheDataAre) {
    const char* const pszName = GetParam().pszName;
    const char* const pszOpenssl = GetParam().pszOpenssl;
    for (const auto& [pszKey, pszPadding] :
         {std::pair("rsa", "/PSS"), std::pair("pss", ""), std::pair("p256", ""), std::pair("p521", "")}) {
        SCOPED_TRACE(pszKey);
        const ToolkitClient client(Uri(pszKey));
        ASSERT_EQ(VCTK_SetDigestAlg(client.Handle(), ("prehashed:" + std::string(pszName) + pszPadding).c_str()), 0);
        const auto strSignature = client.SignP1(DigestOf(pszOpenssl), 1);
        EXPECT_TRUE(strSignature) << client.Message();
        ExpectAccepted(pszKey, strSignature,
                       DigestVerify(pszOpenssl, *pszPadding != '\0' || pszKey == std::string("pss")));
    }
}

TEST_P(SchemeWith, P7OfADigestIsVerifiedWithTheContent) {
    const char* const pszName = GetParam().pszName;
    const char* const pszOpenssl = GetParam().pszOpenssl;
    for (const auto& [pszKey, pszPadding] :
         {std::pair("rsa", ""), std::pair("rsa", "/PSS"), std::pair("pss", "/PSS"), std::pair("p256", "")}) {
        SCOPED_TRACE(pszKey);
        const ToolkitClient client(Uri(pszKey));
        ASSERT_EQ(VCTK_SetDigestAlg(client.Handle(), ("prehashed:" + std::string(pszName) + pszPadding).c_str()), 0);
        const auto strP7 = client.SignP7(DigestOf(pszOpenssl), 1, 1, 1);
        if (!strP7 && pszKey == std::string("p256")) {
            EXPECT_FALSE(GetParam().bEcdsaInEachCms);
            EXPECT_EQ(client.LastError(), VCTK_E_SIGN_FAILED);
            EXPECT_NE(client.Message().find("set SHA-256, SHA-384 or SHA-512, or make a P1 signature"),
                      std::string::npos)
                << client.Message();
            continue;
        }
        EXPECT_TRUE(strP7) << client.Message();
        ExpectAccepted(pszKey, strP7, CmsVerify(pszKey, true));
        s_pDirectory->Write("other", "other content");
        EXPECT_NE(Run("openssl cms -verify -binary -inform DER -in sig -out out -noverify -content other").nStatus, 0);
    }
}

INSTANTIATE_TEST_SUITE_P(, SchemeWith, testing::ValuesIn(kDigests), RowName);

TEST_F(SchemeTest, ACertificateForPssIsListedAsSuch) {
    EXPECT_EQ(ToolkitClient(Uri("pss384")).Records().at(0).at(4), "RSA-PSS");
    EXPECT_EQ(ToolkitClient(Uri("ed25519")).Records().at(0).at(4), "ED25519");
    EXPECT_EQ(ToolkitClient(Uri("ed448")).Records().at(0).at(4), "ED448");
}

TEST_F(SchemeTest, ACertificateForPssWithOneDigestSignsWithThatOne) {
    const ToolkitClient client(Uri("pss384"));
    for (const char* pszName : {"SHA-384", "SHA-384/PSS"}) {
        ASSERT_EQ(VCTK_SetDigestAlg(client.Handle(), pszName), 0);
        ExpectAccepted("pss384", client.SignP1(kContent), DigestVerify("sha384", true));
        ExpectAccepted("pss384", client.SignP7(kContent, 0, 0, 1), CmsVerify("pss384", false));
    }
}

// The salt is random.
TEST_F(SchemeTest, PssSignaturesOfTheSameDataDiffer) {
    const ToolkitClient client(Uri("rsa"));
    ASSERT_EQ(VCTK_SetDigestAlg(client.Handle(), "SHA-256/PSS"), 0);
    EXPECT_NE(client.SignP1(kContent), client.SignP1(kContent));
}

// A key's contexts are used again, so none may serve another digest or padding than its own.
TEST_F(SchemeTest, TheLastDigestSetIsTheOneThatSigns) {
    struct Way {
        const char* pszName;
        const char* pszOpenssl;
        bool bPss;
    };
    constexpr Way kWays[] = {
        {"SHA-256", "sha256", false}, {"SHA-256/PSS", "sha256", true}, {"SHA-512", "sha512", false}};
    for (const char* const pszKey : {"rsa", "p256"}) {
        const ToolkitClient client(Uri(pszKey));
        for (int i = 0; i < 2; ++i) {
            for (const auto& [pszName, pszOpenssl, bPss] : kWays) {
                if (bPss && pszKey == std::string_view("p256")) {
                    continue;
                }
                SCOPED_TRACE(std::string(pszKey) + " " + pszName);
                ASSERT_EQ(VCTK_SetDigestAlg(client.Handle(), pszName), 0);
                ExpectAccepted(pszKey, client.SignP1(kContent), DigestVerify(pszOpenssl, bPss));
            }
        }
    }
}

struct None : Row {
    const char* pszKey;
    size_t cbData;
};

class SchemeOfBytes : public SchemeTest, public testing::WithParamInterface<None> {};

TEST_P(SchemeOfBytes, SignsThemAsTheyAre) {
    const ToolkitClient client(Uri(GetParam().pszKey));
    ASSERT_EQ(VCTK_SetDigestAlg(client.Handle(), "prehashed:none"), 0) << client.Message();
    s_pDirectory->Write("bytes", std::string(GetParam().cbData, '\x9C'));
    const auto strSignature = client.SignP1(Run("base64 -w0 bytes").strOutput, 1);
    EXPECT_TRUE(strSignature) << client.Message();
    ExpectAccepted(GetParam().pszKey, strSignature,
                   GetParam().pszKey == std::string("rsa")
                       ? "openssl pkeyutl -verifyrecover -pubin -inkey pub -in sig -out signed && cmp signed bytes"
                       : "openssl pkeyutl -verify -pubin -inkey pub -sigfile sig -in bytes");
}

INSTANTIATE_TEST_SUITE_P(, SchemeOfBytes,
                         testing::Values(None{"RsaOne", "rsa", 1}, None{"RsaDigest", "rsa", 36},
                                         None{"RsaMost", "rsa", 256 - 11}, None{"EcShort", "p256", 20},
                                         None{"EcDigest", "p256", 32}, None{"EcMost", "p521", 64}),
                         RowName);

class SchemeEdwards : public SchemeTest, public testing::WithParamInterface<const char*> {};

TEST_P(SchemeEdwards, P1IsVerifiedByOpensslWhateverTheDigest) {
    const ToolkitClient client(Uri(GetParam()));
    ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
    std::optional<std::string> strFirst;
    for (const char* pszName : {"SHA-256", "SHA-512", "SHA3-384"}) {
        ASSERT_EQ(VCTK_SetDigestAlg(client.Handle(), pszName), 0);
        const auto strSignature = client.SignP1(kContent);
        EXPECT_TRUE(strSignature) << client.Message();
        ExpectAccepted(GetParam(), strSignature,
                       "openssl pkeyutl -verify -rawin -pubin -inkey pub -in content -sigfile sig");
        strFirst = strFirst ? strFirst : strSignature;
        EXPECT_EQ(strSignature, strFirst) << "the same bytes each time";
    }
}

// RFC 8419's digest for Ed448 is in no version of OpenSSL's CMS.
TEST_P(SchemeEdwards, P7WhereTheOpensslCommandMakesAGoodOneElseAClearError) {
    const std::string strKey = GetParam();
    const bool bOffered = strKey == "ed25519" &&
                          Run("openssl cms -sign -binary -md sha512 -signer ed25519.crt -inkey ed25519.key -in content"
                              " -outform DER -out sig && openssl cms -verify -binary -inform DER -in sig"
                              " -content content -CAfile ed25519.crt -out out")
                                  .nStatus == 0;
    const ToolkitClient client(Uri(strKey));
    const auto strP7 = client.SignP7(kContent, 0, 0, 1);
    EXPECT_EQ(strP7.has_value(), bOffered) << client.Message();
    if (strP7) {
        ExpectAccepted(strKey, strP7, CmsVerify(strKey, false));
    } else {
        EXPECT_EQ(client.LastError(), VCTK_E_SIGN_FAILED);
        EXPECT_NE(client.Message().find("OpenSSL"), std::string::npos) << client.Message();
        EXPECT_NE(client.Message().find("P1"), std::string::npos) << client.Message();
    }
}

TEST_P(SchemeEdwards, SignsFromPkcs12) {
    const ToolkitClient client("file:" + MakePkcs12Store(*s_pDirectory, GetParam()) + "?pin-value=" + kTestPin);
    ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
    ExpectAccepted(GetParam(), client.SignP1(kContent),
                   "openssl pkeyutl -verify -rawin -pubin -inkey pub -in content -sigfile sig");
}

INSTANTIATE_TEST_SUITE_P(Keys, SchemeEdwards, testing::Values("ed25519", "ed448"));

// What the data are is part of the name: "p7" with content attached, "detached", or "p1".
struct Unfit : Row {
    const char* pszKey;
    const char* pszDigest;
    const char* pszCall;
    int nForm;
    const char* pszInput;  // null: a SHA-256 digest of the content, in Base64
    VCTKError nError;
    const char* pszWords;  // in the message
};

class SchemeRefused : public SchemeTest, public testing::WithParamInterface<Unfit> {};

TEST_P(SchemeRefused, WithTheReason) {
    const Unfit& unfit = GetParam();
    const ToolkitClient client(Uri(unfit.pszKey));
    ASSERT_EQ(VCTK_SetDigestAlg(client.Handle(), unfit.pszDigest), 0) << client.Message();
    const std::string strInput = unfit.pszInput != nullptr ? unfit.pszInput : DigestOf("sha256");
    const std::string strCall = unfit.pszCall;
    EXPECT_FALSE(strCall == "p1" ? client.SignP1(strInput, unfit.nForm)
                                 : client.SignP7(strInput, unfit.nForm, strCall == "detached" ? 1 : 0, 1));
    EXPECT_EQ(client.LastError(), unfit.nError);
    EXPECT_NE(client.Message().find(unfit.pszWords), std::string::npos) << client.Message();
    ExpectKnownText(VEX_KNOWN_TEXTS "/Schemes.txt", unfit.strName, client.Message());
}

const std::string kTooLongForRsa = "A" + std::string(327, 'A');  // 246 bytes
const std::string kTooLongForEc = std::string(86, 'A') + "==";   // 64 bytes; one more group makes them 67
const std::string kBeyondEc = "AAAA" + kTooLongForEc;

INSTANTIATE_TEST_SUITE_P(
    , SchemeRefused,
    testing::Values(
        Unfit{"PssOfEc", "p256", "SHA-256/PSS", "p1", 0, "text", VCTK_E_SIGN_FAILED, "without \"/PSS\""},
        Unfit{"PssP7OfEc", "p256", "SHA-256/PSS", "p7", 0, "text", VCTK_E_SIGN_FAILED, "needs an RSA key"},
        Unfit{"PssOfEdwards", "ed25519", "SHA-512/PSS", "p1", 0, "text", VCTK_E_SIGN_FAILED, "needs an RSA key"},
        Unfit{"OtherDigestThanAllowed", "pss384", "SHA-256/PSS", "p1", 0, "text", VCTK_E_SIGN_FAILED,
              "SHA-384 only; set this digest"},
        Unfit{"OtherPlainDigestThanAllowed", "pss384", "SHA-256", "p7", 0, "text", VCTK_E_SIGN_FAILED, "SHA-384 only"},
        Unfit{"LongerSaltWanted", "pss-long-salt", "SHA-256/PSS", "p1", 0, "text", VCTK_E_SIGN_FAILED,
              "a salt of at least 64 bytes"},
        Unfit{"OtherMaskWanted", "pss-other-mask", "SHA-256/PSS", "p1", 0, "text", VCTK_E_SIGN_FAILED, "MGF1"},
        Unfit{"NoDigestWithPssCertificate", "pss", "prehashed:NONE", "p1", 1, nullptr, VCTK_E_SIGN_FAILED,
              "needs a digest"},
        Unfit{"DigestAsText", "rsa", "prehashed:SHA-256", "p1", 0, "text", VCTK_E_INVALID_ARGUMENT, "input form 1"},
        Unfit{"DigestAsTextInP7", "rsa", "prehashed:SHA-256", "detached", 0, "text", VCTK_E_INVALID_ARGUMENT,
              "input form 1"},
        Unfit{"ShorterDigest", "rsa", "prehashed:SHA-384", "p1", 1, nullptr, VCTK_E_INVALID_ARGUMENT,
              "has 48 bytes, not 32"},
        Unfit{"LongerDigest", "p256", "prehashed:SHA-224", "detached", 1, nullptr, VCTK_E_INVALID_ARGUMENT,
              "has 28 bytes, not 32"},
        Unfit{"AttachedDigest", "rsa", "prehashed:SHA-256", "p7", 1, nullptr, VCTK_E_INVALID_ARGUMENT, "detached"},
        Unfit{"P7WithoutDigestName", "rsa", "prehashed:NONE", "detached", 1, nullptr, VCTK_E_INVALID_ARGUMENT,
              "prehashed:SHA-256"},
        Unfit{"DigestForEdwards", "ed25519", "prehashed:SHA-256", "p1", 1, nullptr, VCTK_E_SIGN_FAILED,
              "without \"prehashed:\""},
        Unfit{"DigestForEdwardsP7", "ed448", "prehashed:SHA-256", "detached", 1, nullptr, VCTK_E_SIGN_FAILED,
              "without \"prehashed:\""},
        Unfit{"BytesForEdwards", "ed448", "prehashed:NONE", "p1", 1, nullptr, VCTK_E_SIGN_FAILED,
              "without \"prehashed:\""},
        Unfit{"TooLongForRsa", "rsa", "prehashed:NONE", "p1", 1, kTooLongForRsa.c_str(), VCTK_E_SIGN_FAILED,
              "at most 245 bytes"},
        Unfit{"TooLongForEc", "p521", "prehashed:NONE", "p1", 1, kBeyondEc.c_str(), VCTK_E_SIGN_FAILED,
              "at most 64 bytes"},
        Unfit{"DigestNotBase64", "rsa", "prehashed:SHA-256", "p1", 1, "*", VCTK_E_DATA_BASE64, ""},
        Unfit{"NoDigest", "rsa", "prehashed:SHA-256", "p1", 1, "", VCTK_E_DATA_EMPTY, ""}),
    RowName);

}  // namespace
