// Tokens without handles of the toolkit: who may log in, and which keys can sign for a certificate.
#include <gtest/gtest.h>
#include <openssl/hmac.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "ChildProcess.h"
#include "LyingToken.h"
#include "ModuleOfTests.h"
#include "Row.h"
#include "Secret.h"
#include "SelfSigned.h"
#include "signing/Token.h"
#include "signing/TokenPrivateKey.h"

namespace {
// How long the look for a wrong PIN takes, of which a digest is kept.
std::atomic<int> g_msDigest{0};
// The number of each process; 0: its own.
pid_t g_nProcess = 0;
}  // namespace

extern "C" unsigned char* __real_HMAC(const EVP_MD* pDigest, const void* pKey, int cbKey, const unsigned char* pb,
                                      size_t cb, unsigned char* pbOut, unsigned int* pcbOut);

// The toolkit calls these functions in this program.
extern "C" unsigned char* __wrap_HMAC(const EVP_MD* pDigest, const void* pKey, int cbKey, const unsigned char* pb,
                                      size_t cb, unsigned char* pbOut, unsigned int* pcbOut) {
    std::this_thread::sleep_for(std::chrono::milliseconds(g_msDigest));
    return __real_HMAC(pDigest, pKey, cbKey, pb, cb, pbOut, pcbOut);
}

extern "C" pid_t __real_getpid();
extern "C" pid_t __wrap_getpid() {
    return g_nProcess != 0 ? g_nProcess : __real_getpid();
}

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

// A token whose PIN for signatures is another one than that for the login. All keys need it.
class TwoPins : public testing::Test {
protected:
    static void SetUpTestSuite() {
        s_functions = *lyingtoken::Functions();
        s_functions.C_Login = [](CK_SESSION_HANDLE, CK_USER_TYPE nUser, unsigned char*, CK_ULONG) -> CK_RV {
            ++(nUser == CKU_USER ? s_cLogins : s_cSignatureLogins);
            return nUser == CKU_USER ? CKR_OK : CKR_PIN_INCORRECT;
        };
        s_functions.C_GetAttributeValue = [](CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject,
                                             CK_ATTRIBUTE* pAttribute, CK_ULONG cAttributes) -> CK_RV {
            const CK_RV rv = lyingtoken::Functions()->C_GetAttributeValue(hSession, hObject, pAttribute, cAttributes);
            if (pAttribute->type == CKA_ALWAYS_AUTHENTICATE && pAttribute->pValue != nullptr) {
                *static_cast<CK_BBOOL*>(pAttribute->pValue) = CK_TRUE;
            }
            return rv;
        };
    }

    void SetUp() override {
        lyingtoken::SetAnswers({}, false);
        s_cLogins = s_cSignatureLogins = 0;
    }

    VCTKError LogIn(const char* pszPin) {
        return ErrorOf([&] {
            const SecretText pin = Secret(pszPin);
            m_token.LogIn(&pin);
        });
    }

    VCTKError Sign() {
        const std::vector<unsigned char> data(32);
        return ErrorOf([&] { m_token.Sign({"1", CKK_RSA, ""}, {CKM_RSA_PKCS, nullptr, 0}, data); });
    }

    inline static CK_FUNCTION_LIST s_functions{};  // modules are never unloaded
    inline static std::atomic<int> s_cLogins{0};
    inline static std::atomic<int> s_cSignatureLogins{0};

    const TempDirectory m_directory;
    Pkcs11Module& m_module = Pkcs11Module::Open(InstallModule(m_directory, &s_functions), "");
    Token m_token{m_module, ListTokens(m_module).at(0).name};
};

TEST_F(TwoPins, ThreadsThatSignTryAWrongPinOnce) {
    const std::shared_ptr<Token> user = m_token.Use();
    ASSERT_EQ(LogIn("3141"), VCTK_OK);
    g_msDigest = 100;  // enough for all threads to get there
    {
        std::vector<std::jthread> threads;
        for (int i = 0; i < 8; ++i) {
            threads.emplace_back([&] { EXPECT_EQ(Sign(), VCTK_E_PIN_WRONG); });
        }
    }
    g_msDigest = 0;
    EXPECT_EQ(s_cSignatureLogins, 1);
}

TEST_F(TwoPins, APinThatDoesNotSignStillLogsIn) {
    for (int i = 1; i <= 2; ++i) {
        const std::shared_ptr<Token> user = m_token.Use();
        EXPECT_EQ(LogIn("2718"), VCTK_OK);
        EXPECT_EQ(s_cLogins, i);
        EXPECT_EQ(Sign(), VCTK_E_PIN_WRONG);
        EXPECT_EQ(s_cSignatureLogins, 1) << "it is refused without the token";
    }
}

// It can have it in a PID namespace of its own.
TEST_F(TwoPins, AForkedChildWithItsParentsNumberDoesNotUseItsSessions) {
    const std::shared_ptr<Token> user = m_token.Use();
    ASSERT_EQ(LogIn("1618"), VCTK_OK);
    g_nProcess = getpid();
    ExpectChildPasses([&] {
        const std::size_t cCalls = lyingtoken::CallCount();
        EXPECT_FALSE(m_module.IsUsable());
        EXPECT_EQ(ErrorOf([&] { m_token.Read(); }), VCTK_E_TOKEN_FAILED);
        EXPECT_EQ(Sign(), VCTK_E_TOKEN_FAILED);
        EXPECT_EQ(lyingtoken::CallCount(), cCalls);
    });
    g_nProcess = 0;
    EXPECT_EQ(ErrorOf([&] { m_token.Read(); }), VCTK_OK);
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
