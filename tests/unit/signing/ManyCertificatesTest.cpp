// A store of ten thousand certificates opens in seconds. Signing with it is as fast as with a store of one.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <string>

#include "MemoryBio.h"
#include "MemoryCertificate.h"
#include "Scale.h"
#include "VCTKFilter.h"
#include "signing/SigningObject.h"
#include "signing/Store.h"

namespace vextk {
namespace {

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point began) {
    return std::chrono::duration<double>(Clock::now() - began).count();
}

// Keys and self-signed certificates as PEM; the first stays valid longest.
std::string ManyIdentities(int nCount) {
    const std::time_t now = std::time(nullptr);
    const BioPtr pem(BIO_new(BIO_s_mem()));
    for (int i = 0; i < nCount; ++i) {
        const KeyPtr key(EVP_EC_gen("P-256"));
        const X509Ptr certificate =
            Make({key.get(), now - 60, now + (i == 0 ? 2000000 : 1000000), i + 1, "Number " + std::to_string(i)});
        PEM_write_bio_PrivateKey(pem.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr);
        PEM_write_bio_X509(pem.get(), certificate.get());
    }
    return MemoryBioText(pem.get());
}

OpenedStorePtr StoreOf(Identities identities) {
    return std::make_shared<const OpenedStore>(std::make_shared<const Identities>(std::move(identities)));
}

double SecondsPerSignature(SigningObject& object) {
    object.SignP1("text", 0);
    constexpr int kSignatures = 500;
    const Clock::time_point began = Clock::now();
    for (int i = 0; i < kSignatures; ++i) {
        object.SignP1("text", 0);
    }
    return SecondsSince(began) / kSignatures;
}

TEST(ManyCertificates, SignAsFastAsOne) {
    InitialiseOpenSsl();
    const int nMany = Scaled(10000);
    SigningObject one(StoreOf(ReadIdentities(ManyIdentities(1), nullptr)));
    const std::string strPem = ManyIdentities(nMany);
    const Clock::time_point began = Clock::now();
    Identities identities = ReadIdentities(strPem, nullptr);
    const double dOpen = SecondsSince(began);
    ASSERT_EQ(identities.size(), static_cast<size_t>(nMany));
    SigningObject many(StoreOf(std::move(identities)));

    const double dOne = SecondsPerSignature(one);
    const double dMany = SecondsPerSignature(many);
    std::printf("%d certificates: opened in %.1f s, %.0f us a signature (one certificate: %.0f us)\n", nMany, dOpen,
                dMany * 1e6, dOne * 1e6);
    EXPECT_LT(dMany, dOne * 3 + 0.001);
    EXPECT_LT(dOpen, 60.0);
}

TEST(ManyCertificates, AChangeIsSeenAtOnce) {
    InitialiseOpenSsl();
    SigningObject object(StoreOf(ReadIdentities(ManyIdentities(3), nullptr)));
    const auto signer = [&] {
        object.SignP1("text", 0);
        return object.SignCertificate();
    };
    const std::string strFirst = signer();
    EXPECT_EQ(signer(), strFirst);
    object.AddFilter(VCTK_FILTER_SERIAL, "2");
    const std::string strSecond = signer();
    EXPECT_NE(strSecond, strFirst);
    object.SetChooseSingle(true);
    EXPECT_EQ(signer(), strSecond);
    object.ClearFilters();
    EXPECT_EQ(object.Call([](SigningObject& o) { o.SignP1("text", 0); }), VCTK_E_SEVERAL_CERTIFICATES);
    object.SetChooseSingle(false);
    EXPECT_EQ(signer(), strFirst);
}

}  // namespace
}  // namespace vextk
