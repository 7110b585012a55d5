// What a call leaves on the stack and in the processor's registers.
#pragma once

namespace vextk {

// Overwrites, at its end, the stack that the calls made meanwhile have used: OpenSSL leaves pieces of keys there. To
// stand first in the function whose callees are meant. As deep as OpenSSL is known to go and a margin, and less on a
// thread whose stack is small: the host's guard pages are not touched.
class StackWiper {
public:
    StackWiper() = default;
    ~StackWiper();
    StackWiper(const StackWiper&) = delete;
    StackWiper& operator=(const StackWiper&) = delete;
};

// For functions that return to the host: vector registers hold what was copied last, and the dynamic linker of a host
// that binds lazily would save them on the stack.
#if __has_cpp_attribute(gnu::zero_call_used_regs)
#define VEXTK_CLEAR_REGISTERS [[gnu::zero_call_used_regs("all")]]
#else
#define VEXTK_CLEAR_REGISTERS
#endif

}  // namespace vextk
