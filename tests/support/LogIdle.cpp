#include "LogIdle.h"

#include <semaphore.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "SystemCalls.h"

namespace {

std::atomic<long> g_nPosts{0};
std::atomic<long> g_nTaken{0};
std::atomic<bool> g_bWaiting{false};

// Looked up before any call is made to fail.
auto* const s_pSemPost = system_calls::Next(sem_post, "sem_post");
auto* const s_pSemWait = system_calls::Next(sem_wait, "sem_wait");

}  // namespace

extern "C" int sem_post(sem_t* pSemaphore) noexcept {
    ++g_nPosts;
    return s_pSemPost(pSemaphore);
}

extern "C" int sem_wait(sem_t* pSemaphore) {
    g_bWaiting = true;
    const int nResult = s_pSemWait(pSemaphore);
    // In this order, so that "waiting, and all posts taken" always means idle.
    g_bWaiting = false;
    g_nTaken += nResult == 0 ? 1 : 0;
    return nResult;
}

void log_idle::Wait() {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (g_nTaken != g_nPosts || !g_bWaiting) {
        if (std::chrono::steady_clock::now() > end) {
            std::fprintf(stderr, "The log's writer is not idle after 20 s\n");
            std::abort();
        }
        std::this_thread::yield();
    }
}
