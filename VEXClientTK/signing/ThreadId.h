// Numbers for threads, and a function that is called when a thread ends. Unlike the system's, no number is used twice.
#pragma once

#include <cstdint>

namespace vextk {

using ThreadId = std::uint64_t;

// No thread has this number.
constexpr ThreadId kNoThread = 0;

// The calling thread's number. May throw std::bad_alloc on a thread's first call.
ThreadId CurrentThreadId();

// The calling thread's number if it has one, else kNoThread. Needs no memory.
ThreadId CurrentThreadIdIfAny() noexcept;

// Each thread that has a number loses it when it ends, and then calls pfnForget with it. This stops when the library is
// unloaded or the process's exit handlers run. Returns the function that was set before, null if none.
using ForgetThreadFunction = void (*)(ThreadId) noexcept;
ForgetThreadFunction OnThreadEnd(ForgetThreadFunction pfnForget) noexcept;

}  // namespace vextk
