#include "signing/ThreadId.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <new>
#include <set>
#include <thread>
#include <vector>

#include "ThreadMemory.h"

namespace vextk {
namespace {

// Records the threads that end. The tests join their threads before they read the list.
class ThreadIdTest : public testing::Test {
protected:
    ThreadIdTest() : m_pfnBefore(OnThreadEnd([](ThreadId nThread) noexcept { s_ended.push_back(nThread); })) {
        s_ended.clear();
    }
    ~ThreadIdTest() override { OnThreadEnd(m_pfnBefore); }

    inline static std::vector<ThreadId> s_ended;

private:
    const ForgetThreadFunction m_pfnBefore;
};

TEST_F(ThreadIdTest, WithoutMemoryAThreadHasNoneAndGetsOneLater) {
    ThreadId nThread = kNoThread;
    std::thread([&] {
        t_fNoThreadMemory = true;
        EXPECT_THROW(CurrentThreadId(), std::bad_alloc);
        EXPECT_EQ(CurrentThreadIdIfAny(), kNoThread);
        t_fNoThreadMemory = false;
        nThread = CurrentThreadId();
        EXPECT_NE(nThread, kNoThread);
        EXPECT_EQ(CurrentThreadIdIfAny(), nThread);
    }).join();
    EXPECT_EQ(s_ended, std::vector{nThread});
}

TEST_F(ThreadIdTest, StaysTheSameOnAThread) {
    const ThreadId nThread = CurrentThreadId();
    EXPECT_NE(nThread, kNoThread);
    EXPECT_EQ(CurrentThreadId(), nThread);
    EXPECT_EQ(CurrentThreadIdIfAny(), nThread);
    EXPECT_TRUE(s_ended.empty());
}

TEST_F(ThreadIdTest, IsNeverUsedAgainAndEndsWithItsThread) {
    std::set<ThreadId> seen{CurrentThreadId()};
    for (int i = 0; i < 100; ++i) {
        ThreadId nThread = kNoThread;
        std::thread([&] { nThread = CurrentThreadId(); }).join();
        EXPECT_TRUE(seen.insert(nThread).second);
        EXPECT_EQ(s_ended, std::vector{nThread});
        s_ended.clear();
    }
}

TEST_F(ThreadIdTest, AThreadWithoutOneEndsUnnoticed) {
    std::thread([] { EXPECT_EQ(CurrentThreadIdIfAny(), kNoThread); }).join();
    EXPECT_TRUE(s_ended.empty());
}

// The destructors of a thread run in no fixed order. One that runs later may use the toolkit again.
TEST_F(ThreadIdTest, IsAnotherInADestructorThatRunsLaterAndEndsAsWell) {
    static ThreadId s_nLate = kNoThread;
    pthread_key_t key = 0;  // created after the toolkit's, so its destructor runs later
    ASSERT_EQ(pthread_key_create(&key, [](void*) { s_nLate = CurrentThreadId(); }), 0);
    ThreadId nThread = kNoThread;
    std::thread([&] {
        nThread = CurrentThreadId();
        pthread_setspecific(key, &key);
    }).join();
    pthread_key_delete(key);
    EXPECT_NE(s_nLate, nThread);
    EXPECT_EQ(s_ended, (std::vector{nThread, s_nLate}));
}

}  // namespace
}  // namespace vextk
