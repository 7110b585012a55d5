// What keys on tokens sign beside PKCS #1 v1.5 and ECDSA of data: RSASSA-PSS with the mechanisms that the token has,
// Ed25519, and digests that the caller made.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "Row.h"
#include "Scale.h"
#include "TestToken.h"
#include "ToolkitClient.h"

namespace {

constexpr unsigned long kRawRsa = 0x03;     // CKM_RSA_X_509
constexpr unsigned long kPss = 0x0D;        // CKM_RSA_PKCS_PSS
constexpr unsigned long kPkcs1 = 0x01;      // CKM_RSA_PKCS
constexpr unsigned long kEcdsa = 0x1041;    // CKM_ECDSA
constexpr unsigned long kEdwards = 0x1057;  // CKM_EDDSA
constexpr const char* kPin = "4711";

class TokenSchemeTest : public testing::Test {
protected:
    // A token with a key of each kind. "pss" and "pss384" are keys whose certificates are for RSASSA-PSS alone; the
    // second allows only SHA-384.
    static void SetUpTestSuite() {
        if (s_tokens) {
            return;
        }
        s_tokens = std::make_unique<TestTokens>();
        const TempDirectory& directory = s_tokens->Directory();
        MakeIdentity(directory, {"rsa", "rsa:2048"});
        MakeIdentity(directory, {"ec", "ec -pkeyopt ec_paramgen_curve:P-256"});
        MakeIdentity(directory, {"ed25519", "ed25519"});
        MakeIdentity(directory, {"ed448", "ed448"});
        MakeIdentity(directory, {"pss", "rsa-pss -pkeyopt rsa_keygen_bits:2048"});
        MakeIdentity(directory, {"pss384",
                                 "rsa-pss -pkeyopt rsa_keygen_bits:2048 -pkeyopt rsa_pss_keygen_md:sha384"
                                 " -pkeyopt rsa_pss_keygen_mgf1_md:sha384 -pkeyopt rsa_pss_keygen_saltlen:48"});
        s_tokens->MakeToken("Card", kPin);
        int nId = 0;
        for (const char* pszName : {"rsa", "ec", "ed25519", "ed448", "pss", "pss384"}) {
            if (std::string(pszName).starts_with("pss")) {
                // On a token, such a key is an RSA key like others.
                RequireCommand(s_tokens->In() + "openssl rsa -traditional -in " + pszName +
                               ".key -out plain.key && sed -i 's/RSA-PSS PRIVATE/RSA PRIVATE/' plain.key &&"
                               " openssl pkcs8 -topk8 -nocrypt -in plain.key -out " +
                               pszName + ".key");
            }
            const std::string strId = "0" + std::to_string(++nId);
            s_tokens->StoreKey("Card", kPin, pszName, strId);
            s_tokens->StoreCertificate("Card", kPin, pszName, strId);
        }
        directory.Write("content", "text");
    }

    void SetUp() override { TakeAway({}); }

    static Pkcs11Shim& Shim() { return TestTokens::Shim(); }

    static void TakeAway(const std::vector<unsigned long>& mechanisms) {
        std::fill(Shim().nMissing.begin(), Shim().nMissing.end(), Pkcs11Shim::kNoMechanism);
        std::copy(mechanisms.begin(), mechanisms.end(), Shim().nMissing.begin());
        if (Shim().pfnLoseSessions != nullptr) {
            Shim().pfnLoseSessions();  // a token is asked for its mechanisms once for each connection
        }
    }

    static std::string Uri(const std::string& strName, const std::string& strMore = "") {
        return "pkcs11:token=Card;object=" + strName + "?pin-value=" + kPin + "&" + TestTokens::ModuleQuery() + strMore;
    }

    static CommandResult Run(const std::string& strCommand) { return RunCommand(s_tokens->In() + strCommand); }

    static void ExpectAccepted(const std::string& strName, const std::optional<std::string>& strSignature,
                               const std::string& strCommand) {
        ASSERT_TRUE(strSignature);
        s_tokens->Directory().Write("sig.b64", *strSignature);
        const CommandResult result = Run("base64 -d sig.b64 > sig && openssl x509 -in " + strName +
                                         ".crt -noout -pubkey > pub && " + strCommand);
        EXPECT_EQ(result.nStatus, 0) << result.strOutput;
    }

    // Both kinds of signatures, of data and of a digest.
    static void ExpectPss(const ToolkitClient& client, const std::string& strName, const std::string& strDigest,
                          const std::string& strOpenssl) {
        const std::string strVerify = "openssl dgst -" + strOpenssl +
                                      " -verify pub -sigopt rsa_padding_mode:pss -sigopt rsa_pss_saltlen:digest"
                                      " -signature sig content";
        const std::string strCms =
            "openssl cms -verify -binary -cades -inform DER -in sig -out out -content content"
            " -CAfile " +
            strName + ".crt";
        const std::string strHash = Run("openssl dgst -" + strOpenssl + " -binary content | base64 -w0").strOutput;
        ASSERT_EQ(VCTK_SetDigestAlg(client.Handle(), strDigest.c_str()), 0);
        const auto strP1 = client.SignP1("text");
        EXPECT_TRUE(strP1) << client.Message();
        ExpectAccepted(strName, strP1, strVerify);
        ExpectAccepted(strName, client.SignP7("text", 0, 0, 1), strCms);
        ASSERT_EQ(VCTK_SetDigestAlg(client.Handle(), ("prehashed:" + strDigest).c_str()), 0);
        ExpectAccepted(strName, client.SignP1(strHash, 1), strVerify);
        ExpectAccepted(strName, client.SignP7(strHash, 1, 1, 1), strCms);
    }

    static std::unique_ptr<TestTokens> s_tokens;  // until the end of the process, which reads them once
};
std::unique_ptr<TestTokens> TokenSchemeTest::s_tokens;

struct Mechanisms : Row {
    std::vector<unsigned long> missing;
    const char* pszDigest;
    const char* pszOpenssl;
    unsigned long nUsed;
};

class TokenPss : public TokenSchemeTest, public testing::WithParamInterface<Mechanisms> {};

TEST_P(TokenPss, IsMadeWithAMechanismThatTheTokenHas) {
    const Mechanisms& mechanisms = GetParam();
    TakeAway(mechanisms.missing);
    for (const char* pszName : {"rsa", "pss"}) {
        SCOPED_TRACE(pszName);
        const ToolkitClient client(Uri(pszName));
        ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
        Shim().nMechanism = 0;
        ExpectPss(client, pszName, mechanisms.pszDigest + std::string("/PSS"), mechanisms.pszOpenssl);
        EXPECT_EQ(Shim().nMechanism, mechanisms.nUsed);
    }
}

// PKCS #11 has no names for RSASSA-PSS with the last two digests.
INSTANTIATE_TEST_SUITE_P(, TokenPss,
                         testing::Values(Mechanisms{"Sha224", {}, "SHA-224", "sha224", kPss},
                                         Mechanisms{"Sha256", {}, "SHA-256", "sha256", kPss},
                                         Mechanisms{"Sha384", {}, "SHA-384", "sha384", kPss},
                                         Mechanisms{"Sha512", {}, "SHA-512", "sha512", kPss},
                                         Mechanisms{"OnlyPss", {kRawRsa, kPkcs1}, "SHA-256", "sha256", kPss},
                                         Mechanisms{"OnlyRaw", {kPss, kPkcs1}, "SHA-256", "sha256", kRawRsa},
                                         Mechanisms{"OnlyRawSha512", {kPss, kPkcs1}, "SHA-512", "sha512", kRawRsa},
                                         Mechanisms{"Sha3", {}, "SHA3-256", "sha3-256", kRawRsa},
                                         Mechanisms{"Sha512With256", {}, "SHA-512/256", "sha512-256", kRawRsa}),
                         RowName);

struct Lack : Row {
    std::vector<unsigned long> missing;
    const char* pszName;
    const char* pszDigest;
    const char* pszWords;
};

class TokenLacks : public TokenSchemeTest, public testing::WithParamInterface<Lack> {};

TEST_P(TokenLacks, IsReportedWithTheReason) {
    TakeAway(GetParam().missing);
    const ToolkitClient client(Uri(GetParam().pszName));
    ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
    ASSERT_EQ(VCTK_SetDigestAlg(client.Handle(), GetParam().pszDigest), 0);
    EXPECT_FALSE(client.SignP1("text"));
    EXPECT_EQ(client.LastError(), VCTK_E_SIGN_FAILED);
    EXPECT_NE(client.Message().find(GetParam().pszWords), std::string::npos) << client.Message();
    EXPECT_FALSE(client.SignP7("text", 0, 0, 1));
    EXPECT_EQ(client.LastError(), VCTK_E_SIGN_FAILED);
}

INSTANTIATE_TEST_SUITE_P(, TokenLacks,
                         testing::Values(Lack{"Both", {kPss, kRawRsa}, "rsa", "SHA-256/PSS", "offers neither"},
                                         Lack{"BothForItsCertificate", {kPss, kRawRsa}, "pss", "SHA-256", "neither"},
                                         Lack{"RawForSha3", {kRawRsa}, "rsa", "SHA3-256/PSS", "CKM_RSA_X_509"},
                                         Lack{"OtherDigestThanAllowed", {}, "pss384", "SHA-256", "SHA-384 only"},
                                         Lack{"PssOfEc", {}, "ec", "SHA-256/PSS", "needs an RSA key"}),
                         RowName);

TEST_F(TokenSchemeTest, ACertificateForPssWithOneDigestSignsWithThatOne) {
    const ToolkitClient client(Uri("pss384"));
    ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
    ExpectPss(client, "pss384", "SHA-384", "sha384");
}

TEST_F(TokenSchemeTest, SixteenThreadsSignWithPss) {
    for (const std::vector<unsigned long>& missing : {std::vector<unsigned long>{}, {kPss}}) {
        TakeAway(missing);
        const ToolkitClient client(Uri("rsa"));
        ASSERT_EQ(VCTK_SetDigestAlg(client.Handle(), "SHA-256/PSS"), 0);
        ASSERT_EQ(VCTK_CallQueueEnable(client.Handle(), 0, 0), 0);
        constexpr int kThreads = 16;
        const int cRounds = Scaled(50);
        std::atomic<int> cSigned{0};
        std::array<std::optional<std::string>, kThreads> last;
        {
            std::vector<std::jthread> threads;
            for (std::optional<std::string>& strLast : last) {
                threads.emplace_back([&] {
                    for (int i = 0; i < cRounds; ++i) {
                        const auto strP1 = client.SignP1("text");
                        EXPECT_TRUE(strP1) << client.Message();
                        cSigned += strP1 ? 1 : 0;
                        strLast = client.SignP7("text", 0, 1, 1);
                        EXPECT_TRUE(strLast) << client.Message();
                    }
                });
            }
        }
        EXPECT_EQ(cSigned, kThreads * cRounds);
        for (const std::optional<std::string>& strLast : last) {
            ExpectAccepted("rsa", strLast,
                           "openssl cms -verify -binary -inform DER -in sig -content content -CAfile rsa.crt -out out");
        }
    }
}

TEST_F(TokenSchemeTest, Ed25519P1IsVerifiedByOpenssl) {
    const ToolkitClient client(Uri("ed25519"));
    ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
    Shim().nMechanism = 0;
    const auto strSignature = client.SignP1("text");
    EXPECT_TRUE(strSignature) << client.Message();
    EXPECT_EQ(Shim().nMechanism, kEdwards);
    ExpectAccepted("ed25519", strSignature,
                   "openssl pkeyutl -verify -rawin -pubin -inkey pub -in content -sigfile sig");
}

// Its mechanism has parameters, which tokens read in different ways.
TEST_F(TokenSchemeTest, AnEd448KeyIsNotSupported) {
    const ToolkitClient client(Uri("ed448", "&list=all"));
    ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
    EXPECT_EQ(client.Records().at(0).at(7), "unsupported-key");
    EXPECT_FALSE(client.SignP1("text"));
    EXPECT_EQ(client.LastError(), VCTK_E_NO_CERTIFICATE);
    EXPECT_NE(client.Message().find("ED448"), std::string::npos) << client.Message();
}

TEST_F(TokenSchemeTest, SignsADigestOrAnyBytes) {
    const std::string strHash = Run("openssl dgst -sha256 -binary content > bytes; base64 -w0 bytes").strOutput;
    for (const auto& [pszName, nMechanism] : {std::pair("rsa", kPkcs1), std::pair("ec", kEcdsa)}) {
        SCOPED_TRACE(pszName);
        const ToolkitClient client(Uri(pszName));
        ASSERT_EQ(VCTK_SetDigestAlg(client.Handle(), "prehashed:SHA-256"), 0);
        ExpectAccepted(pszName, client.SignP1(strHash, 1), "openssl dgst -sha256 -verify pub -signature sig content");
        EXPECT_EQ(Shim().nMechanism, nMechanism);
        ASSERT_EQ(VCTK_SetDigestAlg(client.Handle(), "prehashed:NONE"), 0);
        ExpectAccepted(pszName, client.SignP1(strHash, 1),
                       "openssl pkeyutl -verify -pubin -inkey pub -in bytes -sigfile sig");
    }
}

}  // namespace
