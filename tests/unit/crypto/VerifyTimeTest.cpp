// For which moments OpenSSL accepts a path.
#include "crypto/VerifyTime.h"

#include <gtest/gtest.h>

#include "crypto/Owned.h"

namespace vexcrypto {
namespace {

constexpr std::time_t kFirst = 2'000'000'000;
constexpr std::time_t kLast = kFirst + 1000;

class VerifyTimeTest : public testing::Test {
protected:
    VerifyTimeTest() {
        X509_set_version(m_certificate.get(), X509_VERSION_3);
        ASN1_TIME_set(X509_getm_notBefore(m_certificate.get()), kFirst);
        ASN1_TIME_set(X509_getm_notAfter(m_certificate.get()), kLast);
        X509_set_pubkey(m_certificate.get(), m_key.get());
        X509_sign(m_certificate.get(), m_key.get(), EVP_sha256());
        X509_STORE_add_cert(m_trusted.get(), m_certificate.get());
    }

    int ErrorAt(std::time_t nMoment) const {
        const StoreContextPtr context(X509_STORE_CTX_new());
        X509_STORE_CTX_init(context.get(), m_trusted.get(), m_certificate.get(), nullptr);
        SetVerifyTime(context.get(), nMoment);
        const bool bAccepted = X509_verify_cert(context.get()) == 1;
        const int nError = X509_STORE_CTX_get_error(context.get());
        EXPECT_EQ(bAccepted, nError == X509_V_OK);
        return nError;
    }

    const KeyPtr m_key{EVP_EC_gen("P-256")};
    const X509Ptr m_certificate{X509_new()};
    const StorePtr m_trusted{X509_STORE_new()};
};

TEST_F(VerifyTimeTest, FromTheFirstSecondToTheLast) {
    EXPECT_EQ(ErrorAt(kFirst - 1), X509_V_ERR_CERT_NOT_YET_VALID);
    EXPECT_EQ(ErrorAt(kFirst), X509_V_OK);
    EXPECT_EQ(ErrorAt(kLast - 1), X509_V_OK);
    EXPECT_EQ(ErrorAt(kLast), X509_V_OK);
    EXPECT_EQ(ErrorAt(kLast + 1), X509_V_ERR_CERT_HAS_EXPIRED);
}

// Other faults of the path count in the last second, too.
TEST_F(VerifyTimeTest, TheLastSecondExcusesNothingElse) {
    const StorePtr nobody(X509_STORE_new());
    const StoreContextPtr context(X509_STORE_CTX_new());
    X509_STORE_CTX_init(context.get(), nobody.get(), m_certificate.get(), nullptr);
    SetVerifyTime(context.get(), kLast);
    EXPECT_EQ(X509_verify_cert(context.get()), 0);
    EXPECT_EQ(X509_STORE_CTX_get_error(context.get()), X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT);
}

}  // namespace
}  // namespace vexcrypto
