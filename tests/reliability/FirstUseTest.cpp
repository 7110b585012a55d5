// Threads that open a store at the same moment, before anything of OpenSSL was used in the process: each can sign with
// what it has opened. What OpenSSL makes at its first use is there for all of them.
#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <vector>

#include "Amount.h"
#include "ChildProcess.h"
#include "TestStore.h"
#include "Threads.h"
#include "ToolkitClient.h"

namespace {

constexpr int kThreads = 8;

// In a process of its own for each round. Before it was right some five in a hundred failed.
TEST(FirstUse, ByManyThreadsAtOnceGivesEachAStoreThatSigns) {
    const TempDirectory directory;
    MakeIdentity(directory, {.strName = "key", .strKey = "ec -pkeyopt ec_paramgen_curve:P-256"});
    const std::string strUri = "file:" + MakePemStore(directory, "store.pem", {"key"});
    const long nRounds = AmountOf("VEX_TEST_FIRST_USES", 60);
    for (long nRound = 0; nRound < nRounds; ++nRound) {
        const ChildEnd end = RunChild([&] {
            std::latch together(kThreads);
            std::atomic<int> nSigned = 0;
            OnThreads(kThreads, [&](int) {
                together.arrive_and_wait();
                const ToolkitClient client(strUri);
                nSigned += client.SignP7("text", 0, 1, 1) ? 1 : 0;
            });
            EXPECT_EQ(nSigned, kThreads);
        });
        ASSERT_TRUE(end.Passed()) << "round " << nRound;
    }
}

}  // namespace
