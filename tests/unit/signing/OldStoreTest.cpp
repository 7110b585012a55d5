// PKCS #12 files as old programs wrote them: they open, and their keys sign like any other.
#include <gtest/gtest.h>

#include "Row.h"
#include "TestStore.h"
#include "ToolkitClient.h"

namespace {

struct OldStore : Row {
    const char* pszOptions;      // of openssl pkcs12 -export
    const char* pszCertificate;  // the algorithm that must be in the file
    const char* pszKey;
};

class OldStoreTest : public testing::TestWithParam<OldStore> {
protected:
    static void SetUpTestSuite() {
        s_pDirectory = new TempDirectory;
        MakeIdentity(*s_pDirectory, {"rsa"});
        MakeIdentity(*s_pDirectory, {"ec", "ec -pkeyopt ec_paramgen_curve:P-256"});
    }
    static void TearDownTestSuite() { delete s_pDirectory; }

    static std::string In() { return "cd " + s_pDirectory->Path() + " && "; }

    // Makes the file old.p12.
    static void MakeStore(const std::string& strKey) {
        RequireCommand(In() + "openssl pkcs12 -export -legacy -macalg sha1 -inkey " + strKey + ".key -in " + strKey +
                       ".crt -out old.p12 -passout pass:1234 " + GetParam().pszOptions);
        const CommandResult info =
            RunCommand(In() + "openssl pkcs12 -legacy -info -noout -in old.p12 -passin pass:1234");
        ASSERT_NE(info.strOutput.find("PKCS7 Encrypted data: " + std::string(GetParam().pszCertificate)),
                  std::string::npos)
            << info.strOutput;
        ASSERT_NE(info.strOutput.find("Shrouded Keybag: " + std::string(GetParam().pszKey)), std::string::npos)
            << info.strOutput;
    }

    static std::string Uri(const std::string& strAttribute = "?pin-value=1234") {
        return "file:" + s_pDirectory->Path("old.p12") + strAttribute;
    }

    static void ExpectVerified(const std::string& strSignature, const std::string& strCommand) {
        s_pDirectory->Write("content", "text");
        s_pDirectory->Write("sig.b64", strSignature);
        const CommandResult result = RunCommand(In() + "base64 -d sig.b64 >sig && " + strCommand);
        EXPECT_EQ(result.nStatus, 0) << result.strOutput;
    }

    static TempDirectory* s_pDirectory;
};
TempDirectory* OldStoreTest::s_pDirectory = nullptr;

TEST_P(OldStoreTest, Signs) {
    for (const std::string strKey : {"rsa", "ec"}) {
        SCOPED_TRACE(strKey);
        ASSERT_NO_FATAL_FAILURE(MakeStore(strKey));
        const ToolkitClient client(Uri());
        ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
        const auto strP1 = client.SignP1("text");
        ASSERT_TRUE(strP1) << client.Message();
        ExpectVerified(*strP1, "openssl x509 -in " + strKey +
                                   ".crt -noout -pubkey >pub && openssl dgst -sha256 "
                                   "-verify pub -signature sig content");
        const auto strP7 = client.SignP7("text", 0, 1, 1);
        ASSERT_TRUE(strP7) << client.Message();
        ExpectVerified(*strP7, "openssl cms -verify -binary -inform DER -in sig -content content -out out -CAfile " +
                                   strKey + ".crt");
    }
}

TEST_P(OldStoreTest, NeedsTheRightPin) {
    ASSERT_NO_FATAL_FAILURE(MakeStore("ec"));
    EXPECT_FALSE(ToolkitClient(Uri("?pin-value=123")).IsOpen());
    EXPECT_EQ(VCTK_GetLastError(nullptr), VCTK_E_PIN_WRONG) << ErrorMessage(nullptr);
    EXPECT_FALSE(ToolkitClient(Uri("")).IsOpen());
    EXPECT_EQ(VCTK_GetLastError(nullptr), VCTK_E_PIN_REQUIRED) << ErrorMessage(nullptr);
}

constexpr const char* kRc2 = "pbeWithSHA1And40BitRC2-CBC";
constexpr const char* kLongRc2 = "pbeWithSHA1And128BitRC2-CBC";
constexpr const char* kTripleDes = "pbeWithSHA1And3-KeyTripleDES-CBC";

INSTANTIATE_TEST_SUITE_P(
    , OldStoreTest,
    testing::Values(
        OldStore{{"Default"}, "", kRc2, kTripleDes},
        OldStore{{"WithoutMac"}, "-nomac -certpbe PBE-SHA1-RC2-40 -keypbe PBE-SHA1-3DES", kRc2, kTripleDes},
        OldStore{{"Rc2Of40Bits"}, "-certpbe PBE-SHA1-RC2-40 -keypbe PBE-SHA1-RC2-40", kRc2, kRc2},
        OldStore{{"Rc2Of128Bits"}, "-certpbe PBE-SHA1-RC2-128 -keypbe PBE-SHA1-RC2-128", kLongRc2, kLongRc2},
        OldStore{{"TripleDes"}, "-certpbe PBE-SHA1-3DES -keypbe PBE-SHA1-3DES", kTripleDes, kTripleDes},
        OldStore{{"Rc4"},
                 "-certpbe PBE-SHA1-RC4-128 -keypbe PBE-SHA1-RC4-128",
                 "pbeWithSHA1And128BitRC4",
                 "pbeWithSHA1And128BitRC4"},
        OldStore{{"Des"}, "-certpbe PBE-MD5-DES -keypbe PBE-MD5-DES", "pbeWithMD5AndDES-CBC", "pbeWithMD5AndDES-CBC"}),
    RowName);

}  // namespace
