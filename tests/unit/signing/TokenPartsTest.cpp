// Tokens without handles of the toolkit: who may log in, and which keys can sign for a certificate.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "LyingToken.h"
#include "ModuleOfTests.h"
#include "Row.h"
#include "Secret.h"
#include "SelfSigned.h"
#include "signing/Token.h"
#include "signing/TokenPrivateKey.h"

namespace vextk {
namespace {

// The error of a function that throws a failure; VCTK_OK without one.
VCTKError ErrorOf(const std::function<void()>& fnCall) {
    try {
        fnCall();
    } catch (const Failure& failure) {
        return failure.Number();
    }
    return VCTK_OK;
}

// Between two users of a token there is a moment at which the second one has come and the first one has gone.
TEST(TokenParts, TheOnlyUserMayLogInWithAnotherPin) {
    lyingtoken::SetAnswers({}, false);
    static int s_cLogins = 0;
    lyingtoken::Functions()->C_Login = [](CK_SESSION_HANDLE, CK_USER_TYPE, unsigned char*, CK_ULONG) -> CK_RV {
        ++s_cLogins;
        return CKR_OK;
    };
    const TempDirectory directory;
    Pkcs11Module& module = Pkcs11Module::Open(InstallModule(directory, lyingtoken::Functions()), "");
    Token token(module, ListTokens(module).at(0).name);
    const auto logIn = [&](const char* pszPin) {
        return ErrorOf([&] {
            const SecretText pin = Secret(pszPin);
            token.LogIn(&pin);
        });
    };

    const std::shared_ptr<Token> first = token.Use();
    EXPECT_EQ(logIn("1"), VCTK_OK);
    EXPECT_EQ(logIn("1"), VCTK_OK);
    EXPECT_EQ(s_cLogins, 1);
    EXPECT_EQ(logIn(""), VCTK_E_PIN_REQUIRED);
    EXPECT_EQ(logIn("2"), VCTK_OK);
    EXPECT_EQ(s_cLogins, 2);

    const std::shared_ptr<Token> second = token.Use();
    EXPECT_EQ(logIn("3"), VCTK_E_PIN_WRONG);
    EXPECT_EQ(logIn("2"), VCTK_OK);
    EXPECT_EQ(s_cLogins, 2);
    EXPECT_EQ(token.Read().certificates.size(), 4U);
}

struct KeyRow : Row {
    CK_KEY_TYPE nType;      // of the token's key
    const char* pszPublic;  // the type of the certificate's key; its OID: a key that OpenSSL cannot read
    bool bSigns;
    VCTKError nError = VCTK_OK;
};

X509Ptr CertificateOf(const std::string& strPublic) {
    const X509Ptr certificate = SelfSigned().certificate;
    if (strPublic.find('.') != std::string::npos) {
        X509_PUBKEY_set0_param(X509_get_X509_PUBKEY(certificate.get()), OBJ_txt2obj(strPublic.c_str(), 1), V_ASN1_NULL,
                               nullptr, static_cast<unsigned char*>(OPENSSL_zalloc(4)), 4);
    } else if (strPublic != "EC") {
        const KeyPtr key(EVP_PKEY_Q_keygen(nullptr, nullptr, strPublic.c_str()));
        X509_set_pubkey(certificate.get(), key.get());
    }
    return X509Ptr(X509_dup(certificate.get()));  // which reads the key anew
}

class TokenKeys : public testing::TestWithParam<KeyRow> {};

TEST_P(TokenKeys, SignForACertificateOfTheirType) {
    const X509Ptr certificate = CertificateOf(GetParam().pszPublic);
    SigningKeyPtr key;
    EXPECT_EQ(ErrorOf([&] {
                  key = MakeTokenPrivateKey(nullptr, {"01", GetParam().nType, "key"}, certificate.get());
              }),
              GetParam().nError);
    EXPECT_EQ(key != nullptr, GetParam().bSigns);
}

INSTANTIATE_TEST_SUITE_P(, TokenKeys,
                         testing::Values(KeyRow{"Ec", CKK_EC, "EC", true}, KeyRow{"RsaForEc", CKK_RSA, "EC", false},
                                         KeyRow{"EdwardsForEc", CKK_EC_EDWARDS, "EC", false},
                                         KeyRow{"Ed25519", CKK_EC_EDWARDS, "ED25519", true},
                                         KeyRow{"EcForEd25519", CKK_EC, "ED25519", false},
                                         KeyRow{"Ed448", CKK_EC_EDWARDS, "ED448", false, VCTK_E_SIGN_FAILED},
                                         KeyRow{"UnreadableKey", CKK_EC, "1.2.3.4", false}),
                         RowName);

}  // namespace
}  // namespace vextk
