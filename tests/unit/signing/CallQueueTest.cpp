#include "signing/CallQueue.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <future>
#include <iterator>
#include <optional>
#include <string>
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

// Waits until the thread sleeps or has ended.
void WaitUntilAsleep(pid_t nThread) {
    for (;;) {
        std::ifstream status("/proc/self/task/" + std::to_string(nThread) + "/stat");
        const std::string strStatus{std::istreambuf_iterator<char>(status), {}};
        const size_t nName = strStatus.rfind(") ");
        if (nName == std::string::npos || strStatus.compare(nName, 3, ") S") == 0) {
            return;
        }
        std::this_thread::yield();
    }
}

TEST(CallQueue, LetsCallsThroughInTheOrderOfTheirArrival) {
    CallQueue queue;
    queue.Enable(true);
    std::vector<int> order;  // only the thread that has the turn writes it
    {
        std::vector<std::jthread> threads;
        std::optional<CallQueue::Turn> first(std::in_place, queue);
        for (int i = 0; i < 4; ++i) {
            std::promise<pid_t> arriving;
            threads.emplace_back([&, i] {
                arriving.set_value(gettid());
                const CallQueue::Turn turn(queue);
                order.push_back(i);
            });
            WaitUntilAsleep(arriving.get_future().get());
        }
        EXPECT_TRUE(order.empty());
        first.reset();
    }
    EXPECT_EQ(order, (std::vector{0, 1, 2, 3}));
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
    std::optional<CallQueue::Turn> late(std::in_place, queue);  // would wait for ever if the queue counted "early"
    queue.Enable(false);
    early.reset();
    late.reset();
    queue.Enable(true);
    const CallQueue::Turn again(queue);
}

}  // namespace
}  // namespace vextk
