// A handle of no object gives an error number and never a crash.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>

#include "TestStore.h"
#include "ToolkitClient.h"

namespace {

class HandleTest : public testing::Test {
protected:
    void SetUp() override {
        MakeIdentity(m_directory, {"ec", "ec -pkeyopt ec_paramgen_curve:P-256"});
        m_strUri = "file:" + MakePemStore(m_directory, "s.pem", {"ec"});
    }

    TempDirectory m_directory;
    std::string m_strUri;
};

TEST_F(HandleTest, WrongOnesGiveAnErrorNumber) {
    const HANDLE hLive = VCTK_Initialize(m_strUri.c_str());
    ASSERT_NE(hLive, nullptr);
    const HANDLE hStale = VCTK_Initialize(m_strUri.c_str());
    ASSERT_EQ(VCTK_Finalize(hStale), 0);
    int nOnStack = 0;
    const auto nLive = reinterpret_cast<std::uintptr_t>(hLive);
    const HANDLE wrong[] = {nullptr,
                            hStale,
                            &nOnStack,
                            reinterpret_cast<HANDLE>(std::uintptr_t{1}),
                            reinterpret_cast<HANDLE>(~std::uintptr_t{0}),
                            reinterpret_cast<HANDLE>(nLive + 1),
                            reinterpret_cast<HANDLE>(nLive | (std::uintptr_t{1} << 40))};
    for (const HANDLE hWrong : wrong) {
        for (const INT nResult : CallEverything(hWrong)) {
            EXPECT_EQ(nResult, VCTK_E_INVALID_HANDLE) << hWrong;
        }
        EXPECT_EQ(VCTK_Finalize(hWrong), VCTK_E_INVALID_HANDLE) << hWrong;
        if (hWrong != nullptr) {
            EXPECT_EQ(VCTK_GetLastError(hWrong), VCTK_E_INVALID_HANDLE);
            EXPECT_EQ(ErrorMessage(hWrong), VCTKErrorMessage(VCTK_E_INVALID_HANDLE));
        }
    }
    EXPECT_EQ(VCTK_P1Sign(hLive, "text", 0), 0);
    EXPECT_EQ(VCTK_Finalize(hLive), 0);
    EXPECT_EQ(VCTK_Finalize(hLive), VCTK_E_INVALID_HANDLE);
}

TEST_F(HandleTest, AreNeverUsedAgain) {
    const HANDLE hFirst = VCTK_Initialize(m_strUri.c_str());
    ASSERT_EQ(VCTK_Finalize(hFirst), 0);
    for (int i = 0; i < 20; ++i) {
        const HANDLE hNext = VCTK_Initialize(m_strUri.c_str());
        EXPECT_NE(hNext, hFirst);
        ASSERT_EQ(VCTK_Finalize(hNext), 0);
    }
}

TEST_F(HandleTest, ObjectsKeepTheirSettingsApart) {
    const ToolkitClient a(m_strUri);
    const ToolkitClient b(m_strUri);
    ASSERT_EQ(VCTK_AddFilter(a.Handle(), 6, "RSA"), 0);
    EXPECT_FALSE(a.SignP1("text"));
    EXPECT_TRUE(b.SignP1("text"));
}

TEST_F(HandleTest, FinaliseWorksWhileOthersSign) {
    for (int nRound = 0; nRound < 20; ++nRound) {
        const HANDLE hObject = VCTK_Initialize(m_strUri.c_str());
        ASSERT_NE(hObject, nullptr);
        ASSERT_EQ(VCTK_CallQueueEnable(hObject, 0, nRound % 2), 0);
        std::atomic<int> cSigned = 0;
        std::atomic<int> cUnexpected = 0;
        {
            std::vector<std::jthread> threads;
            for (int i = 0; i < 4; ++i) {
                threads.emplace_back([&, hObject] {
                    INT nResult = 0;
                    while ((nResult = VCTK_P1Sign(hObject, "text", 0)) == 0) {
                        ++cSigned;
                    }
                    cUnexpected += nResult != VCTK_E_INVALID_HANDLE ? 1 : 0;
                });
            }
            while (cSigned < 8) {
                std::this_thread::yield();
            }
            EXPECT_EQ(VCTK_Finalize(hObject), 0);
        }
        EXPECT_EQ(cUnexpected, 0);
    }
}

}  // namespace
