// What a call leaves on the stack and in the processor's registers.
#pragma once

#include <cstddef>

namespace vextk {

// Overwrites, at its end, the stack that the calls made meanwhile have used: OpenSSL leaves pieces of keys there. To
// stand first in the function whose callees are meant. As deep as they are known to go and a margin, and less on a
// thread whose stack is small: the host's guard pages are not touched.
class StackWiper {
public:
    // A store is read by whatever decoders, modules and dialogues it takes.
    static constexpr std::size_t kAnyDepth = std::size_t{128} * 1024;
    // A signature with any kind of key goes 14 KiB deep, through SoftHSM half a KiB more. It is made often enough for
    // the wiping to be felt.
    static constexpr std::size_t kSigningDepth = std::size_t{32} * 1024;

    explicit StackWiper(std::size_t cbDepth) : m_cbDepth(cbDepth) {}
    ~StackWiper();
    StackWiper(const StackWiper&) = delete;
    StackWiper& operator=(const StackWiper&) = delete;

private:
    const std::size_t m_cbDepth;
};

// For functions that return to the host: vector registers hold what was copied last, and the dynamic linker of a host
// that binds lazily would save them on the stack.
#if __has_cpp_attribute(gnu::zero_call_used_regs)
#define VEXTK_CLEAR_REGISTERS [[gnu::zero_call_used_regs("all")]]
#else
#define VEXTK_CLEAR_REGISTERS
#endif

}  // namespace vextk
