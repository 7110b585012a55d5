// The digest names that VCTK_SetDigestAlg accepts and refuses.
#include <gtest/gtest.h>

#include "TestStore.h"
#include "ToolkitClient.h"

namespace {

class DigestTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        s_pDirectory = new TempDirectory;
        MakeIdentity(*s_pDirectory, {"rsa"});
        MakePemStore(*s_pDirectory, "store.pem", {"rsa"});
    }
    static void TearDownTestSuite() { delete s_pDirectory; }

    static std::string Uri() { return "file:" + s_pDirectory->Path("store.pem"); }

    static TempDirectory* s_pDirectory;
};
TempDirectory* DigestTest::s_pDirectory = nullptr;

struct Spelling {
    const char* pszName;
    const char* pszOpenssl;  // the same digest by the openssl command's name
};

class DigestAccepted : public DigestTest, public testing::WithParamInterface<Spelling> {};

TEST_P(DigestAccepted, SignsWithThatDigest) {
    const ToolkitClient client(Uri());
    ASSERT_TRUE(client.IsOpen());
    ASSERT_EQ(VCTK_SetDigestAlg(client.Handle(), GetParam().pszName), 0) << client.Message();
    const auto strSignature = client.SignP1("text");
    ASSERT_TRUE(strSignature) << client.Message();
    const TempDirectory work;
    const std::string strFiles = "cd " + work.Path() + " && printf '%s' text > text && printf '%s' '" + *strSignature +
                                 "' | base64 -d > sig && openssl x509 -in " + s_pDirectory->Path("rsa.crt") +
                                 " -noout -pubkey > pub && ";
    const CommandResult result =
        RunCommand(strFiles + "openssl dgst -" + GetParam().pszOpenssl + " -verify pub -signature sig text");
    EXPECT_EQ(result.nStatus, 0) << result.strOutput;
}

INSTANTIATE_TEST_SUITE_P(Spellings, DigestAccepted,
                         testing::Values(Spelling{"SHA256", "sha256"}, Spelling{"SHA-256", "sha256"},
                                         Spelling{"sha256", "sha256"}, Spelling{"sHa-256", "sha256"},
                                         Spelling{"SHA2-256", "sha256"}, Spelling{"2.16.840.1.101.3.4.2.1", "sha256"},
                                         Spelling{"SHA224", "sha224"}, Spelling{"SHA-384", "sha384"},
                                         Spelling{"sha512", "sha512"}, Spelling{"SHA-512", "sha512"},
                                         Spelling{"SHA-512/256", "sha512-256"}, Spelling{"SHA512-256", "sha512-256"},
                                         Spelling{"SHA512/256", "sha512-256"}, Spelling{"sha512/224", "sha512-224"},
                                         Spelling{"SHA-512/224", "sha512-224"}, Spelling{"SHA3-224", "sha3-224"},
                                         Spelling{"SHA3-256", "sha3-256"}, Spelling{"sha3-384", "sha3-384"},
                                         Spelling{"SHA3-512", "sha3-512"}));

struct Refusal {
    const char* pszName;
    VCTKError nError;
    const char* pszWord;  // in the message
};

class DigestRefused : public DigestTest, public testing::WithParamInterface<Refusal> {};

TEST_P(DigestRefused, LeavesTheOldOneInPlace) {
    const ToolkitClient client(Uri());
    ASSERT_EQ(VCTK_SetDigestAlg(client.Handle(), "SHA384"), 0);
    const auto strBefore = client.SignP1("text");
    EXPECT_EQ(VCTK_SetDigestAlg(client.Handle(), GetParam().pszName), GetParam().nError);
    EXPECT_EQ(client.LastError(), GetParam().nError);
    EXPECT_NE(client.Message().find(GetParam().pszWord), std::string::npos) << client.Message();
    EXPECT_EQ(client.SignP1("text"), strBefore);  // PKCS #1 v1.5 is deterministic
}

INSTANTIATE_TEST_SUITE_P(
    Names, DigestRefused,
    testing::Values(
        Refusal{"SHA1", VCTK_E_DIGEST_WEAK, "collisions"}, Refusal{"SHA-1", VCTK_E_DIGEST_WEAK, "collisions"},
        Refusal{"sha1", VCTK_E_DIGEST_WEAK, "collisions"}, Refusal{"MD5", VCTK_E_DIGEST_WEAK, "MD5"},
        Refusal{"md5", VCTK_E_DIGEST_WEAK, "collisions"}, Refusal{"MD4", VCTK_E_DIGEST_WEAK, "MD4"},
        Refusal{"1.3.14.3.2.26", VCTK_E_DIGEST_WEAK, "SHA-1"}, Refusal{"SHA257", VCTK_E_DIGEST_UNKNOWN, "unknown"},
        Refusal{"", VCTK_E_DIGEST_UNKNOWN, "unknown"}, Refusal{"SHAKE128", VCTK_E_DIGEST_UNKNOWN, "unknown"},
        Refusal{"NONE", VCTK_E_DIGEST_UNKNOWN, "unknown"}, Refusal{"SHA-256/OAEP", VCTK_E_DIGEST_UNKNOWN, "unknown"},
        Refusal{"SHA-1/PSS", VCTK_E_DIGEST_WEAK, "collisions"}, Refusal{"/PSS", VCTK_E_DIGEST_UNKNOWN, "unknown"},
        Refusal{"SHA-256/PSS/PSS", VCTK_E_DIGEST_UNKNOWN, "unknown"},
        Refusal{"prehashed:", VCTK_E_DIGEST_UNKNOWN, "unknown"}, Refusal{"prehashed", VCTK_E_DIGEST_UNKNOWN, "unknown"},
        Refusal{"prehashed:/PSS", VCTK_E_DIGEST_UNKNOWN, "unknown"},
        Refusal{"prehashed:NONE/PSS", VCTK_E_DIGEST_UNKNOWN, "unknown"},
        Refusal{"prehashed:SHA1", VCTK_E_DIGEST_WEAK, "collisions"},
        Refusal{"prehashed:prehashed:SHA-256", VCTK_E_DIGEST_UNKNOWN, "unknown"},
        Refusal{"NULL", VCTK_E_DIGEST_UNKNOWN, "unknown"}, Refusal{"RSA", VCTK_E_DIGEST_UNKNOWN, "unknown"},
        Refusal{nullptr, VCTK_E_INVALID_ARGUMENT, "null"}));

TEST_F(DigestTest, DefaultIsSha256) {
    const ToolkitClient byDefault(Uri());
    const ToolkitClient byName(Uri());
    ASSERT_EQ(VCTK_SetDigestAlg(byName.Handle(), "SHA256"), 0);
    EXPECT_EQ(byDefault.SignP1("text"), byName.SignP1("text"));
}

}  // namespace
