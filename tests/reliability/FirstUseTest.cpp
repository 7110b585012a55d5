// Threads open a store at the same moment, before the process has used OpenSSL. Each can sign with the store that it
// opened: OpenSSL's initialisation at its first use is complete for all threads.
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

constexpr int kFirstUsers = 8;

// Each round is a new process. About five rounds in a hundred failed before the fix.
TEST(FirstUse, ByManyThreadsAtOnceGivesEachAStoreThatSigns) {
    const TempDirectory directory;
    MakeIdentity(directory, {.strName = "key", .strKey = "ec -pkeyopt ec_paramgen_curve:P-256"});
    const std::string strUri = "file:" + MakePemStore(directory, "store.pem", {"key"});
    const long nRounds = AmountOf("VEX_TEST_FIRST_USES", 60);
    for (long nRound = 0; nRound < nRounds; ++nRound) {
        const ChildEnd end = RunChild([&] {
            std::latch together(kFirstUsers);
            std::atomic<int> nSigned = 0;
            OnThreads(kFirstUsers, [&](int) {
                together.arrive_and_wait();
                const ToolkitClient client(strUri);
                nSigned += client.SignP7("text", 0, 1, 1) ? 1 : 0;
            });
            EXPECT_EQ(nSigned, kFirstUsers);
        });
        ASSERT_TRUE(end.Passed()) << "round " << nRound;
    }
}

}  // namespace
