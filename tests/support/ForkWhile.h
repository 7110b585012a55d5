// Forks while threads call a function, and calls it in each child, too. A child that inherits a held lock hangs,
// because the thread that holds it does not exist in the child.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

// Fails when a child does not end with status 0 within twenty seconds.
inline void ForkWhile(int nThreads, int nForks, const std::function<void()>& fnCall) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "skipped: a forked child may find the sanitizer's own allocator locked";
#endif
    std::atomic<bool> bEnd = false;
    std::vector<std::jthread> threads;
    for (int i = 0; i < nThreads; ++i) {
        threads.emplace_back([&] {
            while (!bEnd) {
                fnCall();
            }
        });
    }
    int nStatus = 0;
    for (int nFork = 0; nFork < nForks && nStatus == 0; ++nFork) {
        const pid_t nChild = fork();
        if (nChild == 0) {
            alarm(20);
            fnCall();
            _exit(0);
        }
        if (nChild < 0 || waitpid(nChild, &nStatus, 0) != nChild) {
            nStatus = -1;
        }
        EXPECT_EQ(nStatus, 0) << "of the child of fork " << nFork;
    }
    bEnd = true;
}
