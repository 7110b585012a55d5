#include "signing/ThreadId.h"

#include <gtest/gtest.h>

#include <mutex>
#include <set>
#include <thread>
#include <vector>

namespace vextk {
namespace {

TEST(ThreadId, StaysTheSameOnAThread) {
    const ThreadId nThread = CurrentThreadId();
    EXPECT_NE(nThread, 0U);
    EXPECT_EQ(CurrentThreadId(), nThread);
    EXPECT_TRUE(IsThreadAlive(nThread));
}

TEST(ThreadId, IsNeverUsedAgainAndEndsWithItsThread) {
    std::set<ThreadId> seen{CurrentThreadId()};
    for (int i = 0; i < 100; ++i) {
        ThreadId nThread = 0;
        bool fAliveInside = false;
        std::thread([&] {
            nThread = CurrentThreadId();
            fAliveInside = IsThreadAlive(nThread);
        }).join();
        EXPECT_TRUE(fAliveInside);
        EXPECT_FALSE(IsThreadAlive(nThread));
        EXPECT_TRUE(seen.insert(nThread).second);
    }
}

}  // namespace
}  // namespace vextk
