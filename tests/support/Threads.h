// Runs a function on several threads at once.
#pragma once

#include <thread>
#include <vector>

// Calls fnBody(0) to fnBody(nThreads - 1), each on a thread of its own, and returns when all have returned.
template <typename Body>
void OnThreads(int nThreads, const Body& fnBody) {
    std::vector<std::jthread> threads;
    for (int nThread = 0; nThread < nThreads; ++nThread) {
        threads.emplace_back([&fnBody, nThread] { fnBody(nThread); });
    }
}
