// The tokens of the tests of token stores, and how their signatures are verified.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "TestChain.h"
#include "TestToken.h"
#include "ToolkitClient.h"

inline constexpr const char* kPin = "4711";
inline constexpr const char* kOtherPin = "0815";

class TokenTest : public testing::Test {
protected:
    // "Card": an RSA and an EC key with their certificates, a key that needs the PIN for each signature, and two keys
    // with certificates of other keys, one of the same type and one of another type. "Other card" and "Changing": an
    // EC key each. "Ordinary": a key that signs, and one that only decrypts; its certificate stays valid longer.
    // "Labels": an EC key and three certificates, which differ in their labels.
    // "Chained": three EC keys with certificates below intermediate ones, and issuers in no order, one of them
    // cross-signed. "Bare": one of these keys and its certificate alone.
    static void SetUpTestSuite() {
        if (s_pTokens != nullptr) {
            return;
        }
        s_pTokens = new TestTokens;
        s_pTokens->MakeToken("Card", kPin);
        s_pTokens->MakeKey("Card", kPin, "rsa:2048", "01", "rsakey");
        s_pTokens->MakeCertificate("Card", kPin, "01", "01", "rsacert", 20);
        s_pTokens->MakeKey("Card", kPin, "EC:prime256v1", "0002", "eckey");
        s_pTokens->MakeCertificate("Card", kPin, "0002", "0002", "eccert", 40);
        s_pTokens->MakeKey("Card", kPin, "rsa:2048", "03", "alwayskey", "--always-auth");
        s_pTokens->MakeCertificate("Card", kPin, "03", "03", "alwayscert", 10);
        s_pTokens->MakeKey("Card", kPin, "EC:secp384r1", "04", "strange");
        s_pTokens->MakeCertificate("Card", kPin, "0002", "04", "strangecert", 10);
        s_pTokens->MakeKey("Card", kPin, "rsa:2048", "05", "mixed");
        s_pTokens->MakeCertificate("Card", kPin, "0002", "05", "mixedcert", 10);
        s_pTokens->MakeToken("Other card", kOtherPin);
        s_pTokens->MakeKey("Other card", kOtherPin, "EC:secp521r1", "01", "key");
        s_pTokens->MakeCertificate("Other card", kOtherPin, "01", "01", "other", 30);
        s_pTokens->MakeToken("Ordinary", kPin);
        s_pTokens->MakeKey("Ordinary", kPin, "rsa:2048", "01", "signkey");
        s_pTokens->MakeCertificate("Ordinary", kPin, "01", "01", "signs", 10);
        s_pTokens->MakeKey("Ordinary", kPin, "rsa:2048", "02", "decryptkey");
        s_pTokens->MakeCertificate("Ordinary", kPin, "02", "02", "decrypts", 40);
        s_pTokens->MakeToken("Changing", "1111");
        s_pTokens->MakeKey("Changing", "1111", "EC:prime256v1", "01", "key");
        s_pTokens->MakeCertificate("Changing", "1111", "01", "01", "changing", 30);
        s_pTokens->MakeToken("Labels", kPin);
        s_pTokens->MakeKey("Labels", kPin, "EC:prime256v1", "01", "'the key'");
        for (const auto& [pszName, pszLabel] :
             {std::pair{"labelled", "B\xC3\x96 \xF0\x9F\xA6\x8A"}, {"unlabelled", ""}, {"notutf8", "caf\xE9"}}) {
            s_pTokens->IssueCertificate("Labels", kPin, "01", pszName, 10);
            s_pTokens->StoreCertificate("Labels", kPin, pszName, "01", pszLabel);
        }
        MakeChains(s_pTokens->Directory());
        s_pTokens->MakeToken("Chained", kPin);
        for (const auto& [pszName, pszId] : {std::pair{"leaf2", "02"}, {"leaf3", "03"}, {"leaf4", "04"}}) {
            s_pTokens->StoreKey("Chained", kPin, pszName, pszId);
            s_pTokens->StoreCertificate("Chained", kPin, pszName, pszId);
        }
        for (const auto& [pszName, pszId] :
             {std::pair{"stranger", "0A"}, {"cross", "0B"}, {"ca2", "0C"}, {"root", "0D"}, {"ca1", "0E"}}) {
            s_pTokens->StoreCertificate("Chained", kPin, pszName, pszId);
        }
        s_pTokens->MakeToken("Bare", kPin);
        s_pTokens->StoreKey("Bare", kPin, "leaf3", "01");
        s_pTokens->StoreCertificate("Bare", kPin, "leaf3", "01");
    }

    void SetUp() override {
        Shim().fRemoved = false;
        Shim().nMostSessions = 1000000;
        Shim().fPinChanged = false;
        Shim().fPinLocked = false;
        Shim().fPinPad = false;
        Shim().fCannotLock = false;
        Shim().fSigningFails = false;
        Shim().fCertificatesDamaged = false;
        Shim().nNoSession = 0;
    }

    // Given the text between "pkcs11:" and the module.
    static std::string Uri(const std::string& strUri) {
        return "pkcs11:" + strUri + (strUri.find('?') == std::string::npos ? "?" : "&") + TestTokens::ModuleQuery();
    }
    static std::string Card(const std::string& strMore = "") { return Uri("token=Card" + strMore + "?pin-value=4711"); }

    static Pkcs11Shim& Shim() { return TestTokens::Shim(); }

    static std::string Names(const ToolkitClient& client) {
        std::string strNames;
        for (const auto& record : client.Records()) {
            strNames += record.at(5).substr(3) + " ";
        }
        return strNames;
    }

    // Whether the openssl command accepts the P1 and P7 signatures that the client makes.
    static void ExpectSignatures(const ToolkitClient& client, const std::string& strCertificate,
                                 const std::string& strDigest) {
        ASSERT_EQ(VCTK_SetDigestAlg(client.Handle(), strDigest.c_str()), 0);
        const TempDirectory& directory = s_pTokens->Directory();
        const auto p1 = client.SignP1("text");
        ASSERT_TRUE(p1) << client.Message();
        directory.Write("text", "text");
        directory.Write("p1", *p1);
        const CommandResult verified = RunCommand(s_pTokens->In() + "base64 -d p1 > p1.bin && openssl x509 -in " +
                                                  strCertificate + ".crt -noout -pubkey > p1.pub && openssl dgst -" +
                                                  strDigest + " -verify p1.pub -signature p1.bin text");
        EXPECT_EQ(verified.nStatus, 0) << verified.strOutput;

        for (const int nDetached : {0, 1}) {
            const auto p7 = client.SignP7("text", 0, nDetached, 1);
            ASSERT_TRUE(p7) << client.Message();
            directory.Write("p7", *p7);
            const CommandResult cms = RunCommand(
                s_pTokens->In() + "base64 -d p7 > p7.bin && openssl cms -verify -inform DER -in p7.bin" +
                " -binary -CAfile ca.crt -out p7.out " + (nDetached ? "-content text" : "") + " && cmp p7.out text");
            EXPECT_EQ(cms.nStatus, 0) << cms.strOutput;
        }
    }

    inline static TestTokens* s_pTokens = nullptr;
};
