#include "signing/ThreadId.h"

#include <dlfcn.h>
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

// In place of libc's, which it calls.
int pthread_setspecific(pthread_key_t key, const void* pValue) noexcept {
    using Function = int(pthread_key_t, const void*);
    static auto* const s_pNext = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, "pthread_setspecific"));
    return vextk::g_fNoMemory ? ENOMEM : s_pNext(key, pValue);
}
