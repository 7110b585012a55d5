// Numbers for threads that, unlike the system's, are never used again, and what is to be done when a thread ends.
#pragma once

#include <cstdint>

namespace vextk {

using ThreadId = std::uint64_t;

// 0 names no thread.
constexpr ThreadId kNoThread = 0;

// The calling thread's number. May throw std::bad_alloc on a thread's first call.
ThreadId CurrentThreadId();

// The calling thread's number if it has one, else kNoThread. Needs no memory.
ThreadId CurrentThreadIdIfAny() noexcept;

// pfnForget is called by each numbered thread when it ends, with its number, which it then no longer has; until the
// library is unloaded or the process's exit handlers run. Returns the function that was set before, null if none.
using ForgetThreadFunction = void (*)(ThreadId) noexcept;
ForgetThreadFunction OnThreadEnd(ForgetThreadFunction pfnForget) noexcept;

}  // namespace vextk
