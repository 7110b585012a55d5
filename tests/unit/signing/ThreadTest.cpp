// One object used by many threads.
#include <gtest/gtest.h>
#include <malloc.h>

#include <array>
#include <latch>
#include <set>
#include <thread>

#include "TestStore.h"
#include "ToolkitClient.h"

namespace {

class ThreadTest : public testing::Test {
protected:
    void SetUp() override {
        MakeIdentity(m_directory, {"rsa"});
        m_strUri = "file:" + MakePemStore(m_directory, "s.pem", {"rsa"});
    }

    TempDirectory m_directory;
    std::string m_strUri;
};

TEST_F(ThreadTest, EachGetsItsOwnSignature) {
    const ToolkitClient client(m_strUri);
    // PKCS #1 v1.5 is deterministic: a thread gets the same signature alone and beside other threads.
    constexpr size_t kThreads = 8;
    std::array<std::string, kThreads> expected;
    for (size_t i = 0; i < kThreads; ++i) {
        expected[i] = client.SignP1("text " + std::to_string(i)).value();
    }
    EXPECT_EQ(std::set<std::string>(expected.begin(), expected.end()).size(), kThreads);
    for (const int nQueue : {1, 0}) {
        ASSERT_EQ(VCTK_CallQueueEnable(client.Handle(), 0, nQueue), 0);
        std::array<int, kThreads> wrong{};
        {
            std::vector<std::jthread> threads;
            for (size_t i = 0; i < kThreads; ++i) {
                threads.emplace_back([&, i] {
                    for (int n = 0; n < 100; ++n) {
                        wrong[i] += client.SignP1("text " + std::to_string(i)) == expected[i] ? 0 : 1;
                    }
                });
            }
        }
        EXPECT_EQ(wrong, (std::array<int, kThreads>{}));
    }
}

TEST_F(ThreadTest, EachHasItsOwnErrorAndCertificate) {
    const ToolkitClient client(m_strUri);
    EXPECT_NE(VCTK_SetDigestAlg(client.Handle(), "none"), 0);
    ASSERT_NE(VCTK_P1Sign(client.Handle(), "", 0), 0);
    std::jthread([&] {
        EXPECT_EQ(client.LastError(), VCTK_OK);
        EXPECT_EQ(client.Message(), VCTKErrorMessage(VCTK_OK));
        int nLength = 0;
        EXPECT_EQ(VCTK_GetP1SignResult(client.Handle(), nullptr, &nLength), VCTK_E_NO_SIGNATURE);
        EXPECT_TRUE(client.SignP1("text"));
    }).join();
    EXPECT_EQ(client.LastError(), VCTK_E_DATA_EMPTY);
}

TEST_F(ThreadTest, EachHasItsOwnInitialisationError) {
    EXPECT_EQ(VCTK_Initialize("none:"), nullptr);
    std::jthread([] {
        EXPECT_EQ(VCTK_GetLastError(nullptr), VCTK_OK);
        EXPECT_EQ(VCTK_Initialize("file:/none"), nullptr);
        EXPECT_EQ(VCTK_GetLastError(nullptr), VCTK_E_STORE_NOT_FOUND);
    }).join();
    EXPECT_EQ(VCTK_GetLastError(nullptr), VCTK_E_URI_SCHEME);
}

size_t UsedBytes() {
    return mallinfo2().uordblks + mallinfo2().hblkhd;
}

// Few threads end here: a cleanup that waits for many ended threads would come too late.
TEST_F(ThreadTest, AThreadsSignatureIsFreedWhenTheThreadEnds) {
    const ToolkitClient client(m_strUri);
    const std::string strText(size_t{8} << 20, 'x');
    const auto signOnAThread = [&] {
        std::jthread([&] {
            EXPECT_EQ(VCTK_P7Sign(client.Handle(), strText.c_str(), 0, 0, 0), VCTK_OK);
            int nLength = 0;
            EXPECT_EQ(VCTK_GetP7SignResult(client.Handle(), nullptr, &nLength), VCTK_OK);
            EXPECT_GT(static_cast<size_t>(nLength), strText.size()) << "Base64 is a third longer than the text";
        }).join();
    };
    signOnAThread();
    const size_t cbBefore = UsedBytes();
    for (int i = 0; i < 10; ++i) {
        signOnAThread();
        EXPECT_LT(UsedBytes(), cbBefore + (size_t{4} << 20)) << i;
    }
}

TEST_F(ThreadTest, EndedThreadsLeaveNothingBehindInManyObjects) {
    const ToolkitClient one(m_strUri);
    const ToolkitClient two(m_strUri);
    const std::string strText(256 << 10, 'x');
    const auto signOnAThread = [&] {
        std::jthread([&] {
            EXPECT_TRUE(one.SignP7(strText, 0, 0, 0));
            EXPECT_TRUE(two.SignP7(strText, 0, 0, 0));
        }).join();
    };
    signOnAThread();
    const size_t cbBefore = UsedBytes();
    for (int i = 0; i < 50; ++i) {
        signOnAThread();
    }
    // 100 more signatures of over 256 KiB would be more than 25 MiB.
    EXPECT_LT(UsedBytes(), cbBefore + (size_t{4} << 20));
}

}  // namespace
