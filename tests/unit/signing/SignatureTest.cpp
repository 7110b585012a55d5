// Signatures verified by the openssl command.
#include <gtest/gtest.h>

#include <random>
#include <tuple>

#include "TestStore.h"
#include "ToolkitClient.h"
#include "VCTKFilter.h"

namespace {

struct Content {
    const char* pszName;
    std::string bytes;
    bool fBase64;  // passed to the toolkit as Base64
};

std::string RandomBytes(size_t cb) {
    std::mt19937 random(7);
    std::string bytes(cb, '\0');
    for (char& ch : bytes) {
        ch = static_cast<char>(random());
    }
    return bytes;
}

const std::vector<Content>& Contents() {
    static const std::vector<Content> s_contents = {
        {"short", "text", false},
        {"line ends", "a\nb\r\nc\rd\n\n\r\r\n", false},
        {"beyond the basic plane", "\xF0\x9F\x96\x8B \xF0\xA0\x80\x80 \xE7\xAD\xBE\xE5\x90\x8D", false},
        {"no UTF-8", "\xFF\x80 latin \xE9", false},
        {"1 MiB", std::string(1 << 20, 'm'), false},
        {"one zero byte", std::string(1, '\0'), true},
        {"random bytes", RandomBytes(100000), true},
    };
    return s_contents;
}

class SignatureTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        s_pDirectory = new TempDirectory;
        MakeIdentity(*s_pDirectory, {"rsa", "rsa:2048", "/CN=Signer RSA"});
        MakeIdentity(*s_pDirectory, {"rsa4096", "rsa:4096", "/CN=Signer RSA 4096"});
        MakeIdentity(*s_pDirectory, {"p256", "ec -pkeyopt ec_paramgen_curve:P-256", "/CN=Signer P-256"});
        MakeIdentity(*s_pDirectory, {"p521", "ec -pkeyopt ec_paramgen_curve:P-521", "/CN=Signer P-521"});
        for (const char* pszKey : {"rsa", "rsa4096", "p256", "p521"}) {
            MakePemStore(*s_pDirectory, std::string(pszKey) + ".pem", {pszKey});
        }
    }
    static void TearDownTestSuite() { delete s_pDirectory; }

    // The text for the toolkit.
    static std::string Input(const Content& content) {
        if (!content.fBase64) {
            return content.bytes;
        }
        const TempDirectory work;
        return RunCommand("base64 -w0 " + work.Write("bytes", content.bytes)).strOutput;
    }

    // Runs an openssl command in a directory with the files content, sig (decoded) and other (another content).
    static CommandResult Check(const Content& content, const std::string& strSignature, const std::string& strCommand) {
        const TempDirectory work;
        work.Write("content", content.bytes);
        std::string strOther = content.bytes;
        strOther.back() = static_cast<char>(strOther.back() ^ 1);
        work.Write("other", strOther);
        work.Write("sig.b64", strSignature);
        return RunCommand("cd " + work.Path() + " && base64 -d sig.b64 > sig && " + strCommand);
    }

    static std::string Certificate(const std::string& strKey) { return s_pDirectory->Path(strKey + ".crt"); }

    static TempDirectory* s_pDirectory;
};
TempDirectory* SignatureTest::s_pDirectory = nullptr;

class SignatureOf : public SignatureTest, public testing::WithParamInterface<std::tuple<const char*, const char*>> {};

TEST_P(SignatureOf, P1IsVerifiedByOpenssl) {
    const auto [pszKey, pszDigest] = GetParam();
    const ToolkitClient client("file:" + s_pDirectory->Path(std::string(pszKey) + ".pem"));
    ASSERT_EQ(VCTK_SetDigestAlg(client.Handle(), pszDigest), 0) << client.Message();
    for (const Content& content : Contents()) {
        SCOPED_TRACE(content.pszName);
        const auto strSignature = client.SignP1(Input(content), content.fBase64 ? 1 : 0);
        ASSERT_TRUE(strSignature) << client.Message();
        EXPECT_EQ(strSignature->find_first_of("\r\n "), std::string::npos);
        const std::string strVerify = "openssl x509 -in " + Certificate(pszKey) +
                                      " -noout -pubkey > pub && openssl dgst -" + pszDigest +
                                      " -verify pub -signature sig ";
        const CommandResult result = Check(content, *strSignature, strVerify + "content");
        EXPECT_EQ(result.nStatus, 0) << result.strOutput;
        EXPECT_NE(Check(content, *strSignature, strVerify + "other").nStatus, 0)
            << "the signature fits another content";
    }
}

TEST_P(SignatureOf, P7IsVerifiedByOpenssl) {
    const auto [pszKey, pszDigest] = GetParam();
    const ToolkitClient client("file:" + s_pDirectory->Path(std::string(pszKey) + ".pem"));
    ASSERT_EQ(VCTK_SetDigestAlg(client.Handle(), pszDigest), 0) << client.Message();
    for (const Content& content : Contents()) {
        for (const int nDetached : {0, 1, -2}) {
            for (const int nIncludeCert : {0, 1, 256}) {
                SCOPED_TRACE(std::string(content.pszName) + ", detached " + std::to_string(nDetached) +
                             ", certificate " + std::to_string(nIncludeCert));
                const auto strSignature =
                    client.SignP7(Input(content), content.fBase64 ? 1 : 0, nDetached, nIncludeCert);
                ASSERT_TRUE(strSignature) << client.Message();
                EXPECT_EQ(strSignature->find_first_of("\r\n "), std::string::npos);
                const std::string strVerify =
                    "openssl cms -verify -binary -cades -inform DER -in sig -out out -CAfile " + Certificate(pszKey) +
                    (nIncludeCert != 0 ? "" : " -certfile " + Certificate(pszKey));
                const CommandResult result =
                    Check(content, *strSignature,
                          strVerify + (nDetached != 0 ? " -content content" : "") + " && cmp out content");
                EXPECT_EQ(result.nStatus, 0) << result.strOutput;
                if (nDetached != 0) {
                    EXPECT_NE(Check(content, *strSignature, strVerify).nStatus, 0)
                        << "the detached signature contains the content";
                    EXPECT_NE(Check(content, *strSignature, strVerify + " -content other").nStatus, 0);
                }
                if (nIncludeCert == 0) {
                    const CommandResult without =
                        Check(content, *strSignature,
                              "openssl cms -verify -binary -inform DER -in sig -noverify -content content -out out");
                    EXPECT_NE(without.nStatus, 0) << "the signature contains the certificate";
                }
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Keys, SignatureOf,
                         testing::Values(std::tuple("rsa", "sha256"), std::tuple("p256", "sha256"),
                                         std::tuple("rsa4096", "sha3-512"), std::tuple("p521", "sha512"),
                                         std::tuple("rsa", "sha512-256"), std::tuple("p256", "sha384")));

TEST_F(SignatureTest, P7IsDerWithItsSignedAttributes) {
    for (const char* pszKey : {"rsa", "p256"}) {
        const ToolkitClient client("file:" + s_pDirectory->Path(std::string(pszKey) + ".pem"));
        const Content content{"text", "text", false};
        const auto strSignature = client.SignP7(content.bytes, 0, 0, 1);
        ASSERT_TRUE(strSignature);
        const std::string strText =
            Check(content, *strSignature, "openssl cms -cmsout -print -inform DER -in sig").strOutput;
        for (const char* pszAttribute : {"object: contentType", "object: signingTime", "object: messageDigest",
                                         "object: id-smime-aa-signingCertificateV2"}) {
            EXPECT_NE(strText.find(pszAttribute), std::string::npos) << pszAttribute << strText;
        }
        // No indefinite lengths, and encoding the parsed structure again gives the same bytes.
        const CommandResult der =
            Check(content, *strSignature,
                  "! openssl asn1parse -inform DER -in sig | grep -q 'l=inf' && "
                  "openssl cms -cmsout -inform DER -in sig -outform DER -out again && cmp sig again");
        EXPECT_EQ(der.nStatus, 0) << der.strOutput;
    }
}

// Only newer versions of OpenSSL know ECDSA with SHA-3 in CMS.
TEST_F(SignatureTest, Sha3WithEcdsaIsVerifiedOrAClearError) {
    const ToolkitClient client("file:" + s_pDirectory->Path("p256.pem"));
    ASSERT_EQ(VCTK_SetDigestAlg(client.Handle(), "SHA3-256"), 0);
    const Content content{"text", "text", false};
    const auto strP1 = client.SignP1(content.bytes);
    ASSERT_TRUE(strP1) << client.Message();
    const CommandResult p1 =
        Check(content, *strP1,
              "openssl x509 -in " + Certificate("p256") +
                  " -noout -pubkey > pub && openssl dgst -sha3-256 -verify pub -signature sig content");
    EXPECT_EQ(p1.nStatus, 0) << p1.strOutput;
    if (const auto strP7 = client.SignP7(content.bytes, 0, 0, 1)) {
        const CommandResult p7 =
            Check(content, *strP7, "openssl cms -verify -binary -inform DER -in sig -CAfile " + Certificate("p256"));
        EXPECT_EQ(p7.nStatus, 0) << p7.strOutput;
    } else {
        EXPECT_EQ(client.LastError(), VCTK_E_SIGN_FAILED);
        EXPECT_NE(client.Message().find("unsupported"), std::string::npos) << client.Message();
    }
}

TEST_F(SignatureTest, OneStoreManyKeysTheFilterDecides) {
    const ToolkitClient client("file:" + MakePemStore(*s_pDirectory, "all.pem", {"rsa", "p256", "p521"}));
    ASSERT_EQ(VCTK_AddFilter(client.Handle(), VCTK_FILTER_SUBJECT, "CN=Signer P-521"), 0);
    const auto strSignature = client.SignP1("text");
    ASSERT_TRUE(strSignature);
    const CommandResult result =
        Check({"text", "text", false}, *strSignature,
              "openssl x509 -in " + Certificate("p521") +
                  " -noout -pubkey > pub && openssl dgst -sha256 -verify pub -signature sig content");
    EXPECT_EQ(result.nStatus, 0) << result.strOutput;
}

}  // namespace
