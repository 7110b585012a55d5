#include "signing/ThreadId.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <cerrno>
#include <mutex>
#include <new>
#include <set>
#include <thread>
#include <vector>

namespace vextk {
namespace {

thread_local bool g_fNoMemory = false;

TEST(ThreadId, WithoutMemoryAThreadHasNoneAndGetsOneLater) {
    std::thread([] {
        g_fNoMemory = true;
        EXPECT_THROW(CurrentThreadId(), std::bad_alloc);
        g_fNoMemory = false;
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

// What the linker has the sources under test call in place of libc's (--wrap).
extern "C" {
int __real_pthread_setspecific(pthread_key_t key, const void* pValue);
int __wrap_pthread_setspecific(pthread_key_t key, const void* pValue) {
    return vextk::g_fNoMemory ? ENOMEM : __real_pthread_setspecific(key, pValue);
}
}
