#include "signing/ThreadId.h"

#include <gtest/gtest.h>

#include <mutex>
#include <new>
#include <set>
#include <thread>
#include <vector>

#include "ThreadMemory.h"

namespace vextk {
namespace {

TEST(ThreadId, WithoutMemoryAThreadHasNoneAndGetsOneLater) {
    std::thread([] {
        t_fNoThreadMemory = true;
        EXPECT_THROW(CurrentThreadId(), std::bad_alloc);
        t_fNoThreadMemory = false;
        const ThreadId nThread = CurrentThreadId();
        EXPECT_TRUE(IsThreadAlive(nThread));
        EXPECT_FALSE(IsThreadAlive(nThread - 1)) << "the one that was refused";
    }).join();
}

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
