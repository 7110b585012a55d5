// The natives keep no state between calls and share nothing, so threads may use one handle at the same time.
#include <atomic>
#include <thread>

#include "Natives.h"
#include "RecordingToolkit.h"

namespace {

TEST_F(NativesTest, ThreadsUseOneHandleAtOnce) {
    constexpr size_t kThreads = 8;
    constexpr size_t kRounds = 50;
    const std::vector<Native> natives = NativesThat([](const Native&) { return true; });

    const auto run = [&] {
        std::vector<bool> results;
        for (const Native& native : natives) {
            FakeJniEnv env;
            results.push_back(native.fnCall(&env, kHandle, env.MakeString("text")) != 0);
        }
        return results;
    };
    const std::vector<bool> alone = run();
    const size_t nCallsAlone = recording_toolkit::Calls().size();

    recording_toolkit::Reset();
    std::atomic<size_t> nDisturbed = 0;
    std::vector<std::thread> threads;
    for (size_t nThread = 0; nThread < kThreads; ++nThread) {
        threads.emplace_back([&] {
            for (size_t nRound = 0; nRound < kRounds; ++nRound) {
                nDisturbed += run() == alone ? 0 : 1;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(nDisturbed, 0U);
    EXPECT_EQ(recording_toolkit::Calls().size(), kThreads * kRounds * nCallsAlone);
}

}  // namespace
