// The mutex class, and the other declarations of its header. This file must include no other header of the project.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <type_traits>
#include <vector>

#include "CVEXCritical.h"
#include "Threads.h"

namespace {

TEST(Critical, IsAPolymorphicMutexAndNothingElse) {
    EXPECT_EQ(sizeof(CVEXCritical), sizeof(void*) + sizeof(pthread_mutex_t));
    EXPECT_TRUE(std::has_virtual_destructor_v<CVEXCritical>);
}

TEST(Critical, HeaderDeclaresTheCompatibilityFunctions) {
    auto* const pbBlock = static_cast<BYTE*>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, 5));
    ASSERT_NE(pbBlock, nullptr);
    EXPECT_EQ(HeapSize(GetProcessHeap(), 0, pbBlock), DWORD{5});
    EXPECT_EQ(pbBlock[4], 0);
    HeapFree(GetProcessHeap(), 0, pbBlock);
    EXPECT_EQ(MultiByteToWideChar(CP_UTF8, 0, "ab", 2, nullptr, 0), 2);
    EXPECT_EQ(lstrlenW(L"abc"), 3);
    EXPECT_NE(PathIsDirectoryW(L"/"), FALSE);
}

TEST(Critical, LetsOneThreadInAtATime) {
    constexpr int nThreads = 8;
    constexpr int nRounds = 2000;
    CVEXCritical critical;
    int nCount = 0;
    OnThreads(nThreads, [&](int) {
        for (int nRound = 0; nRound < nRounds; ++nRound) {
            critical.EnterVEXCritical();
            ++nCount;
            critical.LeaveVEXCritical();
        }
    });
    EXPECT_EQ(nCount, nThreads * nRounds);
}

TEST(Critical, ACopyIsAnUnlockedMutexOfItsOwn) {
    CVEXCritical critical;
    critical.EnterVEXCritical();
    CVEXCritical copy(critical);
    std::atomic<bool> bEntered{false};
    std::thread thread([&] {
        copy.EnterVEXCritical();
        bEntered = true;
        copy.LeaveVEXCritical();
    });
    thread.join();
    EXPECT_TRUE(bEntered);
    critical.LeaveVEXCritical();
}

TEST(Critical, IsDestroyedThroughItsBase) {
    static int s_nDestroyed;
    struct CDerived : CVEXCritical {
        ~CDerived() override { ++s_nDestroyed; }
    };
    s_nDestroyed = 0;
    std::unique_ptr<CVEXCritical> pCritical = std::make_unique<CDerived>();
    pCritical.reset();
    EXPECT_EQ(s_nDestroyed, 1);
}

}  // namespace
