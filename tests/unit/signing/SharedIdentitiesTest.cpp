// Objects that use one store file share what was read from it; nobody gets what another file or PIN opens.
#include "signing/SharedIdentities.h"

#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <sys/stat.h>

#include <fcntl.h>
#include <malloc.h>
#include <algorithm>
#include <array>
#include <latch>
#include <string>

#include "ChildProcess.h"
#include "MacCount.h"
#include "MemoryBio.h"
#include "Secret.h"
#include "SelfSigned.h"
#include "TempDirectory.h"
#include "Threads.h"
#include "signing/Failure.h"
#include "signing/Store.h"

namespace vextk {
namespace {

constexpr const char* kPin = "4711";

std::string MakePkcs12() {
    const SelfSigned pair;
    const Pkcs12Ptr file(
        PKCS12_create(kPin, nullptr, pair.key.get(), pair.certificate.get(), nullptr, 0, 0, 2048, 2048, 0));
    const BioPtr bytes(BIO_new(BIO_s_mem()));
    i2d_PKCS12_bio(bytes.get(), file.get());
    return MemoryBioText(bytes.get());
}

IdentitiesPtr Read(const std::string& strBytes, std::string_view pin = kPin) {
    const SecretText text = Secret(pin);
    return ReadSharedIdentities(strBytes, &text);
}

VCTKError ErrorOf(const std::string& strBytes, std::string_view pin) {
    try {
        Read(strBytes, pin);
        return VCTK_OK;
    } catch (const Failure& failure) {
        return failure.Number();
    }
}

class SharedIdentitiesTest : public testing::Test {
protected:
    static void SetUpTestSuite() { InitialiseOpenSsl(); }

    const std::string m_strFile = MakePkcs12();
    const int m_cMacs = g_cMacs;
};

TEST_F(SharedIdentitiesTest, AreReadOnceWhileTheyAreInUse) {
    IdentitiesPtr first = Read(m_strFile);
    const IdentitiesPtr second = Read(std::string(m_strFile));
    EXPECT_EQ(first, second);
    first.reset();
    EXPECT_EQ(Read(m_strFile), second);
    EXPECT_EQ(g_cMacs, m_cMacs + 1);
}

TEST_F(SharedIdentitiesTest, AreNotKeptWithoutAUser) {
    IdentitiesPtr identities = Read(m_strFile);
    const std::weak_ptr<const Identity> identity = identities->front();
    identities.reset();
    EXPECT_TRUE(identity.expired());
    EXPECT_NE(Read(m_strFile), nullptr);
    EXPECT_EQ(g_cMacs, m_cMacs + 2);
}

TEST_F(SharedIdentitiesTest, LeaveNothingBehind) {
    const SelfSigned pair;
    const BioPtr bytes(BIO_new(BIO_s_mem()));
    PEM_write_bio_X509(bytes.get(), pair.certificate.get());
    const std::string strFile = MemoryBioText(bytes.get());
    const auto readSome = [&](int nFirst) {
        for (int i = nFirst; i < nFirst + 2000; ++i) {
            ReadSharedIdentities(strFile + std::to_string(i), nullptr);
        }
    };
    readSome(0);
    const size_t cbBefore = mallinfo2().uordblks;
    readSome(2000);
    EXPECT_LT(mallinfo2().uordblks, cbBefore + 2000 * 32) << "more than the key of each reading";
}

TEST_F(SharedIdentitiesTest, AreForTheirPinOnly) {
    const IdentitiesPtr identities = Read(m_strFile);
    for (const char* pszPin : {"471", "47111", "4712", "P4711", ""}) {
        EXPECT_EQ(ErrorOf(m_strFile, pszPin), VCTK_E_PIN_WRONG) << pszPin;
    }
    EXPECT_THROW(ReadSharedIdentities(m_strFile, nullptr), Failure);
    EXPECT_EQ(Read(m_strFile), identities);
    const int cMacs = g_cMacs;
    EXPECT_EQ(ErrorOf(m_strFile, "4712"), VCTK_E_PIN_WRONG);
    EXPECT_EQ(g_cMacs, cMacs + 1) << "a failure is not kept";
}

TEST_F(SharedIdentitiesTest, NoPinAndAnEmptyOneDiffer) {
    const SelfSigned pair;
    const Pkcs12Ptr file(PKCS12_create("", nullptr, pair.key.get(), pair.certificate.get(), nullptr, 0, 0, 0, 0, 0));
    const BioPtr bytes(BIO_new(BIO_s_mem()));
    i2d_PKCS12_bio(bytes.get(), file.get());
    const std::string strFile = MemoryBioText(bytes.get());
    const IdentitiesPtr without = ReadSharedIdentities(strFile, nullptr);
    EXPECT_NE(Read(strFile, ""), without);
}

// The file keeps its name, size, number and times.
TEST_F(SharedIdentitiesTest, AChangedFileIsReadAnew) {
    const TempDirectory directory;
    const std::string strFile = directory.Write("s.p12", m_strFile);
    std::string strOther = MakePkcs12();
    while (strOther.size() != m_strFile.size()) {
        strOther = MakePkcs12();
    }
    const auto open = [&] { return OpenStore(ParseStoreUri("file:" + strFile + "?pin-value=4711")); };
    struct stat status {};
    ASSERT_EQ(stat(strFile.c_str(), &status), 0);
    const OpenedStorePtr before = open();
    EXPECT_EQ(open()->identities, before->identities);
    directory.Write("s.p12", strOther);
    const timespec times[] = {status.st_atim, status.st_mtim};
    ASSERT_EQ(utimensat(AT_FDCWD, strFile.c_str(), times, 0), 0);
    const OpenedStorePtr after = open();
    EXPECT_NE(after->identities->front()->FingerprintHex(), before->identities->front()->FingerprintHex());
    directory.Write("s.p12", m_strFile);
    EXPECT_EQ(open()->identities, before->identities);
}

TEST_F(SharedIdentitiesTest, AreSharedByStoresWithOtherAttributes) {
    const TempDirectory directory;
    const std::string strUri = "file:" + directory.Write("s.p12", m_strFile) + "?pin-value=4711";
    const OpenedStorePtr plain = OpenStore(ParseStoreUri(strUri));
    for (const char* pszMore : {"&list=all", "&list=certificates&chain=root", "&errors=handle"}) {
        EXPECT_EQ(OpenStore(ParseStoreUri(strUri + pszMore))->identities, plain->identities) << pszMore;
    }
}

// Calls fnBody(0) to fnBody(nThreads - 1) on threads that start together.
template <typename Body>
void AtOnce(int nThreads, const Body& fnBody) {
    std::latch start(nThreads);
    OnThreads(nThreads, [&](int nThread) {
        start.arrive_and_wait();
        fnBody(static_cast<std::size_t>(nThread));
    });
}

TEST_F(SharedIdentitiesTest, ThreadsThatOpenAtOnceReadOnce) {
    constexpr int kThreads = 8;
    std::array<IdentitiesPtr, kThreads> results;
    AtOnce(kThreads, [&](std::size_t i) { results[i] = Read(m_strFile); });
    EXPECT_EQ(std::count(results.begin(), results.end(), results.front()), kThreads);
    EXPECT_EQ(g_cMacs, m_cMacs + 1);
}

// Some of them wait while the first one tries the PIN.
TEST_F(SharedIdentitiesTest, ThreadsThatOpenAtOnceAreAllToldThatThePinIsWrong) {
    constexpr int kThreads = 8;
    std::array<VCTKError, kThreads> errors{};
    AtOnce(kThreads, [&](std::size_t i) { errors[i] = ErrorOf(m_strFile, "1"); });
    EXPECT_EQ(std::count(errors.begin(), errors.end(), VCTK_E_PIN_WRONG), kThreads);
}

TEST_F(SharedIdentitiesTest, OpenWhileTheLastUserGoes) {
    const SelfSigned pair;
    const BioPtr bytes(BIO_new(BIO_s_mem()));
    PEM_write_bio_X509(bytes.get(), pair.certificate.get());
    const std::string strFile = MemoryBioText(bytes.get());
    OnThreads(4, [&](int) {
        for (int n = 0; n < 500; ++n) {
            EXPECT_EQ(ReadSharedIdentities(strFile, nullptr)->size(), 1U);
        }
    });
}

// The child reads everything anew, and ends what it has inherited.
TEST_F(SharedIdentitiesTest, AForkedChildHasItsOwn) {
    IdentitiesPtr identities = Read(m_strFile);
    ExpectChildPasses([&] {
        const IdentitiesPtr mine = Read(m_strFile);
        EXPECT_NE(mine, identities);
        EXPECT_EQ(mine->front()->FingerprintHex(), identities->front()->FingerprintHex());
        identities.reset();
        EXPECT_EQ(Read(m_strFile), mine);
    });
    EXPECT_EQ(Read(m_strFile), identities);
}

}  // namespace
}  // namespace vextk
