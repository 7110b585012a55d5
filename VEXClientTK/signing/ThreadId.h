// Numbers for threads that, unlike the system's, are never used again.
#pragma once

#include <cstdint>

namespace vextk {

using ThreadId = std::uint64_t;

// The calling thread's number. May throw std::bad_alloc on a thread's first call.
ThreadId CurrentThreadId();

// Whether the thread of this number has not ended yet. Any thread may ask.
bool IsThreadAlive(ThreadId nThread);

// Before a fork, and after it in the thread that forked and in the one that it became.
void LockThreadIdsForFork();
void UnlockThreadIdsAfterFork();

}  // namespace vextk
