// Keys and certificates are matched in all their forms, without comparing each key with each certificate.
#include "signing/KeyIndex.h"

#include <gtest/gtest.h>
#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/param_build.h>
#include <openssl/x509.h>

#include <string>

#include "Row.h"

namespace {

int g_cCompared = 0;

}  // namespace

extern "C" int __real_EVP_PKEY_eq(const EVP_PKEY* pA, const EVP_PKEY* pB);

// The toolkit calls this function in this program.
extern "C" int __wrap_EVP_PKEY_eq(const EVP_PKEY* pA, const EVP_PKEY* pB) {
    ++g_cCompared;
    return __real_EVP_PKEY_eq(pA, pB);
}

namespace vextk {
namespace {

// A certificate for the key, parsed like one from a file.
X509Ptr MakeCertificate(EVP_PKEY* pKey) {
    const X509Ptr certificate(X509_new());
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), 0);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 1000);
    X509_set_pubkey(certificate.get(), pKey);
    const KeyPtr signer(EVP_EC_gen("P-256"));
    X509_sign(certificate.get(), signer.get(), EVP_sha256());
    unsigned char* pbDer = nullptr;
    const int cbDer = i2d_X509(certificate.get(), &pbDer);
    const MemoryPtr<unsigned char> der(pbDer);
    const unsigned char* pbRead = pbDer;
    return X509Ptr(RequireOpenSsl(d2i_X509(nullptr, &pbRead, cbDer)));
}

KeyPtr PssKey(const BIGNUM* pModulus, const BIGNUM* pExponent) {
    const std::unique_ptr<OSSL_PARAM_BLD, Deleter<OSSL_PARAM_BLD_free>> builder(OSSL_PARAM_BLD_new());
    OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_N, pModulus);
    OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_E, pExponent);
    const std::unique_ptr<OSSL_PARAM, Deleter<OSSL_PARAM_free>> parameters(OSSL_PARAM_BLD_to_param(builder.get()));
    const KeyContextPtr context(EVP_PKEY_CTX_new_from_name(nullptr, "RSA-PSS", nullptr));
    EVP_PKEY* pKey = nullptr;
    EVP_PKEY_fromdata_init(context.get());
    EVP_PKEY_fromdata(context.get(), &pKey, EVP_PKEY_PUBLIC_KEY, parameters.get());
    return KeyPtr(pKey);
}

StoreContent ManyThatDoNotMatch(int nCount) {
    StoreContent content;
    for (int i = 0; i < nCount; ++i) {
        content.keys.emplace_back(EVP_EC_gen("P-256"));
        const KeyPtr other(EVP_EC_gen("P-256"));
        content.certificates.push_back(MakeCertificate(other.get()));
    }
    return content;
}

TEST(KeyIndexTest, ComparesNoKeysThatDoNotMatch) {
    InitialiseOpenSsl();
    const StoreContent content = ManyThatDoNotMatch(200);
    g_cCompared = 0;
    for (const EVP_PKEY* pKey : KeysOf(content)) {
        EXPECT_EQ(pKey, nullptr);
    }
    EXPECT_EQ(g_cCompared, 0) << "of 40,000 pairs";
}

// A certificate for RSA in general does not fit a key for RSASSA-PSS alone, even with the same numbers.
TEST(KeyIndexTest, ComparesNoKeysOfDifferentTypes) {
    InitialiseOpenSsl();
    StoreContent content;
    content.keys.emplace_back(EVP_RSA_gen(1024));
    const auto* pRsa = content.keys.front().get();
    BIGNUM* pModulus = nullptr;
    BIGNUM* pExponent = nullptr;
    EVP_PKEY_get_bn_param(pRsa, OSSL_PKEY_PARAM_RSA_N, &pModulus);
    EVP_PKEY_get_bn_param(pRsa, OSSL_PKEY_PARAM_RSA_E, &pExponent);
    const BignumPtr modulus(pModulus);
    const BignumPtr exponent(pExponent);
    content.certificates.push_back(MakeCertificate(PssKey(pModulus, pExponent).get()));
    g_cCompared = 0;
    EXPECT_EQ(KeysOf(content), std::vector<EVP_PKEY*>{nullptr});
    EXPECT_EQ(g_cCompared, 0);
}

TEST(KeyIndexTest, ComparesEachCertificateWithItsOwnKey) {
    InitialiseOpenSsl();
    StoreContent content = ManyThatDoNotMatch(50);
    for (const KeyPtr& key : content.keys) {
        content.certificates.push_back(MakeCertificate(key.get()));
    }
    g_cCompared = 0;
    const std::vector<EVP_PKEY*> found = KeysOf(content);
    ASSERT_EQ(found.size(), 100U);
    for (size_t i = 0; i < 50; ++i) {
        EXPECT_EQ(found[i], nullptr);
        EXPECT_EQ(found[50 + i], content.keys[i].get());
    }
    EXPECT_EQ(g_cCompared, 50);
}

TEST(KeyIndexTest, FindsAKeyThatHasNoNumbers) {
    InitialiseOpenSsl();
    StoreContent content;
    for (const char* pszType : {"ED25519", "ED25519", "ED448"}) {
        content.keys.emplace_back(EVP_PKEY_Q_keygen(nullptr, nullptr, pszType));
        content.certificates.push_back(MakeCertificate(content.keys.back().get()));
    }
    std::swap(content.certificates.front(), content.certificates.back());
    g_cCompared = 0;
    EXPECT_EQ(KeysOf(content), (std::vector{content.keys[2].get(), content.keys[1].get(), content.keys[0].get()}));
    EXPECT_EQ(g_cCompared, 3);
}

// One key, with its public half in two forms.
struct Forms : Row {
    const char* pszCurve;  // null: RSA
    const char* pszPoint;
    const char* pszParameters;
};

class KeyForms : public testing::TestWithParam<Forms> {};

TEST_P(KeyForms, AreOneKey) {
    InitialiseOpenSsl();
    const Forms& forms = GetParam();
    StoreContent content;
    content.keys.emplace_back(forms.pszCurve != nullptr ? EVP_EC_gen(forms.pszCurve) : EVP_RSA_gen(1024));
    content.keys.emplace_back(forms.pszCurve != nullptr ? EVP_EC_gen(forms.pszCurve) : EVP_RSA_gen(1024));
    const KeyPtr other(EVP_PKEY_dup(content.keys.front().get()));
    if (forms.pszPoint != nullptr) {
        ASSERT_EQ(
            EVP_PKEY_set_utf8_string_param(other.get(), OSSL_PKEY_PARAM_EC_POINT_CONVERSION_FORMAT, forms.pszPoint), 1);
    }
    if (forms.pszParameters != nullptr) {
        ASSERT_EQ(EVP_PKEY_set_utf8_string_param(other.get(), OSSL_PKEY_PARAM_EC_ENCODING, forms.pszParameters), 1);
    }
    content.certificates.push_back(MakeCertificate(other.get()));
    EXPECT_EQ(KeysOf(content), std::vector{content.keys.front().get()});
}

INSTANTIATE_TEST_SUITE_P(, KeyForms,
                         testing::Values(Forms{"Rsa", nullptr, nullptr, nullptr},
                                         Forms{"Uncompressed", "P-256", "uncompressed", nullptr},
                                         Forms{"Compressed", "P-256", "compressed", nullptr},
                                         Forms{"Hybrid", "P-384", "hybrid", nullptr},
                                         Forms{"ParametersWrittenOut", "P-256", nullptr, "explicit"},
                                         Forms{"BothAtOnce", "P-521", "compressed", "explicit"}),
                         RowName);

}  // namespace
}  // namespace vextk
