// Threads still sign after all exit handlers have run, also those of OpenSSL, if it has any.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <latch>
#include <thread>

#include "ChildProcess.h"
#include "TestStore.h"
#include "ToolkitClient.h"

namespace {

constexpr int kSignatureFailed = 17;

std::atomic<int>* g_pcSignatures = nullptr;  // of the child process

void WaitForMoreSignatures() {
    if (g_pcSignatures != nullptr) {
        const int cAtExit = *g_pcSignatures;
        while (*g_pcSignatures < cAtExit + 100) {
            std::this_thread::yield();
        }
    }
}

// Registered before all others, so it runs last.
const int g_nRegistered = std::atexit(WaitForMoreSignatures);

TEST(Exit, SigningGoesOnWhenExitHandlersHaveRun) {
    ASSERT_EQ(g_nRegistered, 0);
    const TempDirectory directory;
    MakeIdentity(directory, {"rsa"});
    const std::string strUri = "file:" + MakePemStore(directory, "s.pem", {"rsa"});
    ExpectChildPasses(
        [&] {
            constexpr int kThreads = 4;
            // They run until the process ends.
            auto& client = *new ToolkitClient(strUri);
            auto& started = *new std::latch(kThreads);
            auto& cSignatures = *new std::atomic<int>{0};
            ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
            ASSERT_EQ(VCTK_CallQueueEnable(client.Handle(), 0, 0), 0);
            for (int n = 0; n < kThreads; ++n) {
                std::thread([&] {
                    for (bool fFirst = true;; fFirst = false) {
                        if (!client.SignP1("text") || !client.SignP7("text", 0, 0, 1)) {
                            _exit(kSignatureFailed);
                        }
                        ++cSignatures;
                        if (fFirst) {
                            started.count_down();
                        }
                    }
                }).detach();
            }
            started.wait();
            g_pcSignatures = &cSignatures;
        },
        Exit::kByReturn);
}

}  // namespace
