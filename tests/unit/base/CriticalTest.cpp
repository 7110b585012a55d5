// The mutex class.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <type_traits>
#include <vector>

#include "CVEXCritical.h"

namespace {

TEST(Critical, IsAPolymorphicMutexAndNoMore) {
    EXPECT_EQ(sizeof(CVEXCritical), sizeof(void*) + sizeof(pthread_mutex_t));
    EXPECT_TRUE(std::has_virtual_destructor_v<CVEXCritical>);
}

TEST(Critical, LetsOneThreadInAtATime) {
    constexpr int nThreads = 8;
    constexpr int nRounds = 2000;
    CVEXCritical critical;
    int nCount = 0;
    std::vector<std::thread> threads;
    for (int nThread = 0; nThread < nThreads; ++nThread) {
        threads.emplace_back([&] {
            for (int nRound = 0; nRound < nRounds; ++nRound) {
                critical.EnterVEXCritical();
                ++nCount;
                critical.LeaveVEXCritical();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
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
