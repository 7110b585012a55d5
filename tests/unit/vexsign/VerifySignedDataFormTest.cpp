// What vexsign verify accepts as a P7: nothing that is cut or changed, and everything that openssl makes.
#include <gtest/gtest.h>

#include "KnownReports.h"
#include "VerifyWorld.h"
#include "vexsign/verify/Verification.h"

namespace vexsign::verify {
namespace {

TEST(VerifySignedDataForm, RefusesASignatureWithoutSigner) {
    const std::string strContent = kContent;
    for (const std::string* const pContent : {static_cast<const std::string*>(nullptr), &strContent}) {
        const Report report =
            Verify(MakeSignedData({}, {SignerOf("ec").certificate.get()}, pContent), SettingsFor(""), nullptr);
        EXPECT_EQ(FailuresOf(report), "form");
        ExpectKnownReport(report, "SignedData.txt");
        EXPECT_FALSE(report.IsGood());
        EXPECT_TRUE(report.signers.empty());
    }
}

TEST(VerifySignedDataForm, RefusesEachBeginningAndEachChangedBit) {
    const TestSigner signer = SignerOf("ec");
    Recipe recipe;
    recipe.pSigner = &signer;
    recipe.attributes = {ContentTypeAttribute(), DigestAttribute(DigestOf("SHA256", kContent)),
                         BindingAttribute(signer.certificate.get())};
    const std::string strSigner = MakeSigner(recipe, kContent);
    const std::string strSignature = MakeSignedData({strSigner}, {signer.certificate.get()}, nullptr);
    const Settings settings = SettingsFor("");
    const auto isGood = [&](const std::string& strBytes) {
        const Reader reader = ReaderOf(kContent);
        return Verify(strBytes, settings, &reader).IsGood();
    };
    ASSERT_TRUE(isGood(strSignature));
    for (std::size_t cb = 0; cb < strSignature.size(); ++cb) {
        EXPECT_FALSE(isGood(strSignature.substr(0, cb))) << cb;
    }
    // What the signer signed, and the signature: no bit of it may change.
    std::size_t cGood = 0;
    const std::size_t nAttributes = strSignature.find(ContentTypeAttribute());
    ASSERT_NE(nAttributes, std::string::npos);
    for (std::size_t i = nAttributes; i < strSignature.size(); ++i) {
        std::string strChanged = strSignature;
        strChanged[i] = static_cast<char>(strChanged[i] ^ 1);
        cGood += isGood(strChanged) ? 1U : 0U;
    }
    EXPECT_EQ(cGood, 0U);
}

// What openssl makes, with parameters and in forms that this project does not make itself.
TEST(VerifySignedDataForm, AcceptsWhatOpenSslMakes) {
    const World& world = World::Get();
    world.Write("content", kContent);
    for (const char* const pszOptions :
         {"-signer ec.crt -inkey ec.key", "-signer rsa.crt -inkey rsa.key -md sha512",
          "-signer rsa.crt -inkey rsa.key -keyopt rsa_padding_mode:pss",
          "-signer ec384.crt -inkey ec384.key -md sha384", "-signer ec.crt -inkey ec.key -keyid",
          "-signer ec.crt -inkey ec.key -cades", "-signer ec.crt -inkey ec.key -nodetach",
          "-signer ec.crt -inkey ec.key -nodetach -stream",
          "-signer ec.crt -inkey ec.key -signer rsa.crt -inkey rsa.key"}) {
        for (const char* const pszForm : {"DER", "PEM"}) {
            RequireCommand("cd " + world.Directory().Path() + " && openssl cms -sign -binary -in content -out made " +
                           pszOptions + " -outform " + pszForm);
            const bool bAttached = std::string_view(pszOptions).find("nodetach") != std::string_view::npos;
            const Reader reader = ReaderOf(kContent);
            const Report report =
                Verify(ReadWholeFile(world.File("made")), SettingsFor("root"), bAttached ? nullptr : &reader);
            EXPECT_TRUE(report.IsGood()) << pszOptions << "\n" << TextOf(report);
            EXPECT_EQ(report.bDetached, !bAttached) << pszOptions;
        }
    }
}

}  // namespace
}  // namespace vexsign::verify
