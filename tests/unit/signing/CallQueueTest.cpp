#include "signing/CallQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <optional>
#include <thread>
#include <vector>

namespace vextk {
namespace {

TEST(CallQueue, LetsOneCallAtATimeThrough) {
    CallQueue queue;
    queue.Enable(true);
    std::atomic<int> nInside = 0;
    std::atomic<bool> fOverlapped = false;
    long nUnguarded = 0;
    {
        std::vector<std::jthread> threads;
        for (int i = 0; i < 8; ++i) {
            threads.emplace_back([&] {
                for (int n = 0; n < 2000; ++n) {
                    const CallQueue::Turn turn(queue);
                    fOverlapped = fOverlapped || ++nInside != 1;
                    ++nUnguarded;
                    --nInside;
                }
            });
        }
    }
    EXPECT_FALSE(fOverlapped);
    EXPECT_EQ(nUnguarded, 8 * 2000);
}

TEST(CallQueue, LetsAllThroughWhileItIsOff) {
    CallQueue queue;
    const CallQueue::Turn first(queue);
    std::jthread([&queue] { const CallQueue::Turn second(queue); }).join();
}

TEST(CallQueue, ConcernsOnlyCallsThatArriveLater) {
    CallQueue queue;
    std::optional<CallQueue::Turn> early(std::in_place, queue);
    queue.Enable(true);
    std::optional<CallQueue::Turn> late(std::in_place, queue);  // would wait for ever if early counted
    queue.Enable(false);
    early.reset();
    late.reset();
    queue.Enable(true);
    const CallQueue::Turn again(queue);
}

}  // namespace
}  // namespace vextk
