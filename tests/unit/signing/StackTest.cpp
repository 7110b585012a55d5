// Stacks that are small, or that the threads library does not know: what OpenSSL leaves on a stack is overwritten only
// where there is room.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>
#include <ucontext.h>
#include <unistd.h>

#include "TestStore.h"
#include "ToolkitClient.h"

namespace {

constexpr size_t kSmallStack = 128 * 1024;

class StackTest : public testing::Test {
protected:
    void SetUp() override {
        MakeIdentity(m_directory, {"rsa"});
        s_strUri = "file:" + MakePkcs12Store(m_directory, "rsa") + "?pin-value=" + kTestPin;
        s_fSigned = false;
        m_pStack = mmap(nullptr, kSmallStack + Guard(), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        ASSERT_NE(m_pStack, MAP_FAILED);
        // An access below the lower end raises a signal.
        ASSERT_EQ(mprotect(m_pStack, Guard(), PROT_NONE), 0);
    }
    void TearDown() override {
        munmap(m_pStack, kSmallStack + Guard());
        EXPECT_TRUE(s_fSigned);
    }

    static size_t Guard() { return static_cast<size_t>(sysconf(_SC_PAGESIZE)); }
    void* Stack() const { return static_cast<char*>(m_pStack) + Guard(); }

    static void Sign() {
        const ToolkitClient client(s_strUri);
        s_fSigned = client.SignP1("text").has_value() && client.SignP7("text", 0, 1, 1).has_value();
    }

private:
    static std::string s_strUri;
    static bool s_fSigned;
    TempDirectory m_directory;
    void* m_pStack = nullptr;
};
std::string StackTest::s_strUri;
bool StackTest::s_fSigned = false;

TEST_F(StackTest, AThreadWithASmallStackSigns) {
    pthread_attr_t attributes;
    ASSERT_EQ(pthread_attr_init(&attributes), 0);
    ASSERT_EQ(pthread_attr_setstack(&attributes, Stack(), kSmallStack), 0);
    const auto body = [](void*) -> void* {
        Sign();
        return nullptr;
    };
    pthread_t thread{};
    ASSERT_EQ(pthread_create(&thread, &attributes, body, nullptr), 0);
    ASSERT_EQ(pthread_join(thread, nullptr), 0);
    pthread_attr_destroy(&attributes);
}

TEST_F(StackTest, AThreadOnAStackThatTheHostAllocatedSigns) {
    ucontext_t here{};
    ucontext_t there{};
    ASSERT_EQ(getcontext(&there), 0);
    there.uc_stack.ss_sp = Stack();
    there.uc_stack.ss_size = kSmallStack;
    there.uc_link = &here;
    makecontext(
        &there, [] { Sign(); }, 0);
    ASSERT_EQ(swapcontext(&here, &there), 0);
}

}  // namespace
