// Which certificates are valid while time passes, and when the clock is set back. The program replaces libc's time().
#include <gtest/gtest.h>

#include <openssl/cms.h>

#include <algorithm>
#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include "MemoryBio.h"
#include "MemoryCertificate.h"
#include "signing/Base64.h"
#include "signing/SigningObject.h"
#include "signing/Store.h"

namespace {

std::time_t s_now = 0;   // 0: the real time
std::time_t s_step = 0;  // added after each look at the clock

}  // namespace

extern "C" std::time_t time(std::time_t* pTime) noexcept {
    std::timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const std::time_t result = s_now != 0 ? s_now : now.tv_sec;
    s_now += s_now != 0 ? s_step : 0;
    if (pTime != nullptr) {
        *pTime = result;
    }
    return result;
}

namespace vextk {
namespace {

constexpr std::time_t kStart = 2'000'000'000;

// The first and the last second of a certificate's validity, counted from kStart.
struct Validity {
    long nFirst;
    long nLast;
};

class ValidityTest : public testing::Test {
protected:
    ~ValidityTest() override { s_now = s_step = 0; }

    // A store whose certificates have the serial numbers 1, 2 and so on.
    static Identities StoreOf(const std::vector<Validity>& validities) {
        const KeyPtr key(EVP_EC_gen("P-256"));
        const BioPtr pem(BIO_new(BIO_s_mem()));
        PEM_write_bio_PrivateKey(pem.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr);
        long nSerial = 0;
        for (const Validity& validity : validities) {
            const X509Ptr certificate = Make({key.get(), kStart + validity.nFirst, kStart + validity.nLast, ++nSerial});
            PEM_write_bio_X509(pem.get(), certificate.get());
        }
        return ReadIdentities(MemoryBioText(pem.get()), nullptr);
    }

    // The serial numbers of the certificates that can sign nSeconds after kStart, such as "01,02,".
    static std::string SerialsAt(const SigningObject& object, long nSeconds) {
        s_now = kStart + nSeconds;
        const std::string strList = object.CertificateList(",", " ");
        std::string strSerials;
        for (size_t nBegin = 0; nBegin < strList.size();) {
            const size_t nEnd = std::min(strList.find(',', nBegin), strList.size());
            strSerials += strList.substr(nBegin, strList.find(' ', nBegin) - nBegin) + ",";
            nBegin = nEnd + 1;
        }
        return strSerials;
    }
};

TEST_F(ValidityTest, CertificatesSignInTheirPeriodAndAgainWhenTheClockIsSetBack) {
    const SigningObject object(
        std::make_shared<const OpenedStore>(std::make_shared<const Identities>(StoreOf({{0, 1000}, {500, 2000}}))));
    std::vector<std::pair<long, std::string>> moments = {{-1, ""},        {0, "01,"},       {499, "01,"},
                                                         {500, "01,02,"}, {1000, "01,02,"}, {1001, "02,"},
                                                         {2000, "02,"},   {2001, ""}};
    for (const char* pszClock : {"forwards", "backwards"}) {
        for (const auto& [nSeconds, strSerials] : moments) {
            EXPECT_EQ(SerialsAt(object, nSeconds), strSerials) << nSeconds << " " << pszClock;
        }
        std::reverse(moments.begin(), moments.end());
    }
}

CmsPtr P7Of(const SigningObject& object) {
    const Bytes der = DecodeBase64(object.P7Signature()).value();
    const unsigned char* pbDer = der.data();
    return CmsPtr(d2i_CMS_ContentInfo(nullptr, &pbDer, static_cast<long>(der.size())));
}

VCTKError SignP7(SigningObject& object) {
    return object.Call([](SigningObject& called) { called.SignP7("text", 0, true, 1); });
}

// The signing time of the object's P7, counted from kStart.
long SigningTimeOf(const SigningObject& object) {
    const CmsPtr cms = P7Of(object);
    CMS_SignerInfo* const pSigner = sk_CMS_SignerInfo_value(CMS_get0_SignerInfos(cms.get()), 0);
    const int nPlace = CMS_signed_get_attr_by_NID(pSigner, NID_pkcs9_signingTime, -1);
    const ASN1_TYPE* const pValue = X509_ATTRIBUTE_get0_type(CMS_signed_get_attr(pSigner, nPlace), 0);
    std::tm parts{};
    EXPECT_EQ(ASN1_TIME_to_tm(pValue->value.asn1_string, &parts), 1);
    return timegm(&parts) - kStart;
}

// The clock moves, or is set, while a signature is made.
TEST_F(ValidityTest, TheSignerIsValidAtTheSigningTime) {
    for (const long nStep : {1L, 1000L, -1L, -1000L}) {
        SigningObject object(
            std::make_shared<const OpenedStore>(std::make_shared<const Identities>(StoreOf({{0, 0}}))));
        s_now = kStart;
        s_step = nStep;
        EXPECT_EQ(SignP7(object), VCTK_OK);
        s_step = 0;
        EXPECT_EQ(SigningTimeOf(object), 0) << nStep;
    }
}

// A chain that was found is used again as long as it holds, and not longer.
TEST_F(ValidityTest, AnIssuerIsInTheSignaturesOfItsPeriod) {
    KeyPtr key(EVP_EC_gen("P-256"));
    const KeyPtr rootKey(EVP_EC_gen("P-256"));
    X509Ptr root = Make({rootKey.get(), kStart, kStart + 1000, 1, "Root", nullptr, {}, true});
    X509Ptr signer = Make({key.get(), kStart - 5000, kStart + 5000, 2, "Signer", rootKey.get(), "Root"});
    const Identities identities{MakeIdentity(std::move(signer), MakeMemoryKey(std::move(key))),
                                MakeIdentity(std::move(root), nullptr)};
    SigningObject object(std::make_shared<const OpenedStore>(OpenedStore{
        std::make_shared<const Identities>(identities), false, ChainPart::kWithRoot, SelectAuthorities(identities)}));
    for (const auto& [nSeconds, cCertificates] :
         {std::pair{-1L, 1}, {0L, 2}, {500L, 2}, {1000L, 2}, {1001L, 1}, {2000L, 1}, {500L, 2}}) {
        s_now = kStart + nSeconds;
        ASSERT_EQ(SignP7(object), VCTK_OK) << object.LastErrorMessage();
        const CmsPtr cms = P7Of(object);
        STACK_OF(X509)* const pCertificates = CMS_get1_certs(cms.get());
        EXPECT_EQ(sk_X509_num(pCertificates), cCertificates) << nSeconds;
        sk_X509_pop_free(pCertificates, X509_free);
    }
}

// One certificate expires and another one becomes valid between the two calls.
TEST_F(ValidityTest, AFetchGetsTheTextOfItsSizeQuery) {
    SigningObject object(
        std::make_shared<const OpenedStore>(std::make_shared<const Identities>(StoreOf({{0, 1000}, {1001, 2000}}))));
    const auto ask = [&](long nSeconds, const char* pszName, bool bFetch) {
        s_now = kStart + nSeconds;
        std::string strSerial;
        EXPECT_EQ(object.Call([&](SigningObject& called) {
            const auto text = called.Answer(pszName, bFetch, [&] { return called.CertificateList(",", " "); });
            strSerial = text->substr(0, text->find(' '));
        }),
                  VCTK_OK);
        return strSerial;
    };
    EXPECT_EQ(ask(1000, "list", false), "01");
    EXPECT_EQ(ask(1001, "list", true), "01");
    EXPECT_EQ(ask(1001, "list", true), "02") << "a fetch without a size query";

    EXPECT_EQ(ask(1000, "list", false), "01");
    EXPECT_EQ(ask(1001, "another list", true), "02");

    EXPECT_EQ(ask(1000, "list", false), "01");
    EXPECT_EQ(object.Call([](SigningObject& called) { called.ClearFilters(); }), VCTK_OK);
    EXPECT_EQ(ask(1001, "list", true), "02") << "another call was between";
}

}  // namespace
}  // namespace vextk
