#include "vexsign/AttachedContent.h"

#include <gtest/gtest.h>
#include <openssl/cms.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <stdexcept>
#include <string>

namespace vexsign {
namespace {

template <auto Function>
struct Deleter {
    template <typename T>
    void operator()(T* p) const {
        Function(p);
    }
};

// A key and its certificate.
class Signer {
public:
    Signer() : m_key(EVP_RSA_gen(2048)), m_certificate(X509_new()) {
        X509_gmtime_adj(X509_getm_notBefore(m_certificate.get()), 0);
        X509_gmtime_adj(X509_getm_notAfter(m_certificate.get()), 1000);
        X509_set_pubkey(m_certificate.get(), m_key.get());
        X509_sign(m_certificate.get(), m_key.get(), EVP_sha256());
    }

    // OpenSSL's own SignedData. It has no signed attributes, so signing twice gives the same bytes.
    std::string Sign(const std::string& content, unsigned int dwFlags) const {
        dwFlags |= CMS_BINARY | CMS_NOATTR;
        const std::unique_ptr<BIO, Deleter<BIO_free>> data(
            BIO_new_mem_buf(content.data(), static_cast<int>(content.size())));
        const std::unique_ptr<CMS_ContentInfo, Deleter<CMS_ContentInfo_free>> cms(
            CMS_sign(m_certificate.get(), m_key.get(), nullptr, data.get(), dwFlags));
        const std::unique_ptr<BIO, Deleter<BIO_free>> out(BIO_new(BIO_s_mem()));
        if ((dwFlags & CMS_STREAM) != 0) {
            i2d_CMS_bio_stream(out.get(), cms.get(), data.get(), static_cast<int>(dwFlags));
        } else {
            i2d_CMS_bio(out.get(), cms.get());
        }
        char* pch = nullptr;
        const long cb = BIO_get_mem_data(out.get(), &pch);
        return {pch, static_cast<std::size_t>(cb)};
    }

private:
    std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>> m_key;
    std::unique_ptr<X509, Deleter<X509_free>> m_certificate;
};

const Signer& TheSigner() {
    static const Signer s_signer;
    return s_signer;
}

std::string Attached(const std::string& detached, const std::string& content) {
    const ContentFrame frame = FrameContent(detached, content.size());
    return frame.strBefore + content + frame.strAfter;
}

class AttachedContent : public testing::TestWithParam<std::size_t> {};

TEST_P(AttachedContent, IsWhatOpenSslMakesOfIt) {
    const std::string content(GetParam(), 'x');
    EXPECT_EQ(Attached(TheSigner().Sign(content, CMS_DETACHED), content), TheSigner().Sign(content, 0));
}

// The lengths at which a header becomes longer, in each of the elements around the content.
INSTANTIATE_TEST_SUITE_P(Lengths, AttachedContent,
                         testing::Values(1, 127, 128, 255, 256, 65000, 65511, 65535, 65536, 16777215, 16777216));

TEST(ContentFrame, RefusesWhatIsNoDetachedSignedData) {
    const std::string detached = TheSigner().Sign("x", CMS_DETACHED);
    for (std::size_t cb = 0; cb < detached.size(); ++cb) {
        EXPECT_THROW(FrameContent(detached.substr(0, cb), 1), std::runtime_error) << cb;
    }
    EXPECT_THROW(FrameContent(detached + "x", 1), std::runtime_error);
    EXPECT_THROW(FrameContent(TheSigner().Sign("x", 0), 1), std::runtime_error);
    EXPECT_THROW(FrameContent(TheSigner().Sign("x", CMS_DETACHED | CMS_STREAM), 1), std::runtime_error);
    for (std::size_t i = 0; i < 30; ++i) {
        std::string damaged = detached;
        damaged[i] = static_cast<char>(damaged[i] ^ 0x40);
        try {
            // A damaged value may be accepted; a damaged tag or length must not lead beyond the text.
            EXPECT_LE(FrameContent(damaged, 1).strAfter.size(), detached.size());
        } catch (const std::runtime_error&) {
        }
    }
}

TEST(ContentFrame, RefusesMoreThanVerifiersRead) {
    const std::string detached = TheSigner().Sign("x", CMS_DETACHED);
    const ContentFrame frame = FrameContent(detached, kMostAttached / 2);
    const std::uint64_t cbMost = kMostAttached - frame.strBefore.size() - frame.strAfter.size();
    const ContentFrame largest = FrameContent(detached, cbMost);
    EXPECT_EQ(largest.strBefore.size() + cbMost + largest.strAfter.size(), kMostAttached);
    for (const std::uint64_t cb :
         {cbMost + 1, kMostAttached, kMostAttached + 1, std::uint64_t{1} << 32U, ~std::uint64_t{0}}) {
        EXPECT_THROW(FrameContent(detached, cb), std::runtime_error) << cb;
    }
}

}  // namespace
}  // namespace vexsign
