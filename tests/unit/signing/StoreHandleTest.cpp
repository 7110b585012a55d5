// Handles that share the store of another one, and handles of stores that cannot be opened.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "ChildProcess.h"
#include "TestStore.h"
#include "ToolkitClient.h"
#include "VCTKFilter.h"

namespace {

std::string HandleUri(HANDLE hObject) {
    return "handle:" + std::to_string(reinterpret_cast<std::uintptr_t>(hObject));
}

class StoreHandleTest : public testing::Test {
protected:
    void SetUp() override {
        MakeIdentity(m_directory, {"ec", "ec -pkeyopt ec_paramgen_curve:P-256"});
        m_strFile = MakePkcs12Store(m_directory, "ec");
        m_strUri = "file:" + m_strFile + "?pin-value=" + kTestPin;
    }

    TempDirectory m_directory;
    std::string m_strFile;
    std::string m_strUri;
};

TEST_F(StoreHandleTest, AnotherObjectSignsWithTheSameStore) {
    const ToolkitClient first(m_strUri + "&list=certificates");
    ASSERT_TRUE(first.IsOpen()) << ErrorMessage(nullptr);
    ASSERT_EQ(VCTK_AddFilter(first.Handle(), VCTK_FILTER_KEY_ALGORITHM, "RSA"), 0);
    RequireCommand("rm " + m_strFile);
    const ToolkitClient second(HandleUri(first.Handle()));
    ASSERT_TRUE(second.IsOpen()) << ErrorMessage(nullptr);
    EXPECT_NE(second.Handle(), first.Handle());
    EXPECT_EQ(VCTK_GetLastError(nullptr), VCTK_OK);
    EXPECT_TRUE(second.SignP1("text")) << "it has settings of its own: " << second.Message();
    EXPECT_FALSE(first.SignP1("text"));
    EXPECT_EQ(second.LastError(), VCTK_OK);
    ASSERT_EQ(second.Records().size(), 1U);
    EXPECT_EQ(second.Records()[0].size(), 9U) << "the URI's attributes hold for it, too";
}

TEST_F(StoreHandleTest, TheStoreLivesAsLongAsOneObject) {
    const HANDLE hFirst = VCTK_Initialize(m_strUri.c_str());
    ASSERT_NE(hFirst, nullptr);
    const ToolkitClient second(HandleUri(hFirst));
    ASSERT_EQ(VCTK_Finalize(hFirst), 0);
    EXPECT_TRUE(second.SignP1("text")) << second.Message();
    EXPECT_FALSE(ToolkitClient(HandleUri(hFirst)).IsOpen());
    EXPECT_EQ(VCTK_GetLastError(nullptr), VCTK_E_INVALID_HANDLE);
    EXPECT_TRUE(ToolkitClient(HandleUri(second.Handle())).IsOpen());
}

TEST_F(StoreHandleTest, ANumberOfNoObjectIsAnInvalidHandle) {
    const ToolkitClient client(m_strUri);
    const std::string strLive = HandleUri(client.Handle());
    for (const std::string& strUri :
         {std::string("handle:0"), std::string("handle:"), std::string("HANDLE:1"), std::string("handle:-4"),
          std::string("handle:18446744073709551615"), std::string("handle:18446744073709551616"), strLive + "0",
          strLive + " ", strLive + ";", "handle:+" + strLive.substr(7), "handle: " + strLive.substr(7)}) {
        EXPECT_FALSE(ToolkitClient(strUri).IsOpen()) << strUri;
        EXPECT_EQ(VCTK_GetLastError(nullptr), VCTK_E_INVALID_HANDLE) << strUri;
        EXPECT_EQ(ErrorMessage(nullptr), VCTKErrorMessage(VCTK_E_INVALID_HANDLE)) << strUri;
    }
    EXPECT_TRUE(ToolkitClient(strLive).IsOpen());
}

TEST_F(StoreHandleTest, OpensWhileOthersFinalize) {
    for (int nRound = 0; nRound < 50; ++nRound) {
        const HANDLE hFirst = VCTK_Initialize(m_strUri.c_str());
        ASSERT_NE(hFirst, nullptr);
        std::atomic<int> cOpened = 0;
        std::atomic<int> cUnexpected = 0;
        {
            std::vector<std::jthread> threads;
            for (int i = 0; i < 3; ++i) {
                threads.emplace_back([&, strUri = HandleUri(hFirst)] {
                    for (;;) {
                        const ToolkitClient client(strUri);
                        if (!client.IsOpen()) {
                            cUnexpected += VCTK_GetLastError(nullptr) == VCTK_E_INVALID_HANDLE ? 0 : 1;
                            return;
                        }
                        cUnexpected += client.SignP1("text") ? 0 : 1;
                        ++cOpened;
                    }
                });
            }
            while (cOpened < 3) {
                std::this_thread::yield();
            }
            EXPECT_EQ(VCTK_Finalize(hFirst), 0);
        }
        EXPECT_EQ(cUnexpected, 0);
    }
}

// Each thread has a handle, and all handles have the keys and certificates in common.
TEST_F(StoreHandleTest, SignAtTheSameTime) {
    MakeIdentity(m_directory, {"rsa"});
    MakeIdentity(m_directory, {"ed", "ed25519"});
    const std::string strUri =
        "file:" + MakePemStore(m_directory, "s.pem", {"ec", "rsa", "ed"}) + "?list=certificates&chain=root";
    const auto filter = [](const ToolkitClient& client, const char* pszAlgorithm) {
        return VCTK_ClearFilter(client.Handle()) == 0 &&
               VCTK_AddFilter(client.Handle(), VCTK_FILTER_KEY_ALGORITHM, pszAlgorithm) == 0;
    };
    const ToolkitClient first(strUri);
    ASSERT_TRUE(filter(first, "RSA"));
    const auto expected = first.SignP1("text");  // PKCS #1 v1.5 is deterministic
    ASSERT_TRUE(expected);
    std::atomic<int> cWrong = 0;
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&, strMine = i % 2 == 0 ? strUri : HandleUri(first.Handle())] {
            const ToolkitClient mine(strMine);
            for (int n = 0; n < 20; ++n) {
                cWrong += filter(mine, "RSA") && mine.SignP1("text") == expected ? 0 : 1;
                cWrong += mine.SignP7("text", 0, 1, 1) ? 0 : 1;
                cWrong += filter(mine, "EC") && mine.SignP1("text") && mine.SignP7("text", 0, 1, 1) ? 0 : 1;
                cWrong += filter(mine, "ED25519") && mine.SignP1("text") ? 0 : 1;
                cWrong += VCTK_ClearFilter(mine.Handle()) == 0 && mine.Records().size() == 3 ? 0 : 1;
            }
        });
    }
    threads.clear();
    EXPECT_EQ(cWrong, 0);
}

TEST_F(StoreHandleTest, AForkedChildOpensMore) {
    const ToolkitClient client(m_strUri);
    ASSERT_TRUE(client.IsOpen());
    ExpectChildPasses([&] {
        const ToolkitClient mine(HandleUri(client.Handle()));
        EXPECT_TRUE(mine.SignP1("text")) << ErrorMessage(nullptr);
    });
}

TEST_F(StoreHandleTest, TellsOnRequestWhyItsStoreCannotBeOpened) {
    const ToolkitClient client("file:/none/k.p12?pin-value=1234&errors=handle");
    ASSERT_TRUE(client.IsOpen());
    const std::string strMessage =
        std::string(VCTKErrorMessage(VCTK_E_STORE_NOT_FOUND)) + ": /none/k.p12: No such file or directory";
    const auto expectMessage = [&] {
        EXPECT_EQ(client.LastError(), VCTK_E_STORE_NOT_FOUND);
        EXPECT_EQ(client.Message(), strMessage);
    };
    expectMessage();
    std::jthread(expectMessage).join();
    EXPECT_EQ(VCTK_GetLastError(nullptr), VCTK_E_STORE_NOT_FOUND);
    EXPECT_EQ(ErrorMessage(nullptr), strMessage);
    for (const INT nResult : CallEverything(client.Handle())) {
        EXPECT_EQ(nResult, VCTK_E_STORE_NOT_FOUND);
        expectMessage();
    }
}

TEST_F(StoreHandleTest, OfAStoreThatCannotBeOpenedFailsInTheSameWay) {
    const ToolkitClient first("file:" + m_strFile + "?errors=handle&pin-value=no");
    const ToolkitClient second(HandleUri(first.Handle()));
    ASSERT_TRUE(second.IsOpen());
    EXPECT_FALSE(second.SignP1("text"));
    EXPECT_EQ(second.LastError(), VCTK_E_PIN_WRONG);
    EXPECT_EQ(VCTK_Finalize(first.Handle()), 0);
    EXPECT_EQ(VCTK_GetLastError(first.Handle()), VCTK_E_INVALID_HANDLE);
    EXPECT_EQ(second.LastError(), VCTK_E_PIN_WRONG);
}

TEST_F(StoreHandleTest, ErrorsInTheHandleChangeNothingElse) {
    const ToolkitClient client(m_strUri + "&errors=handle");
    ASSERT_TRUE(client.IsOpen());
    EXPECT_TRUE(client.SignP1("text"));
    EXPECT_FALSE(ToolkitClient("file:k.p12?errors=handle").IsOpen());
    EXPECT_EQ(VCTK_GetLastError(nullptr), VCTK_E_URI_MALFORMED);
}

}  // namespace
