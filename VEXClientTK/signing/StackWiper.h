// Removes the secrets that a call leaves on the stack and in the processor's registers.
#pragma once

#include <cstddef>

namespace vextk {

// The destructor overwrites the stack that calls have used during the object's life, and clears the vector registers:
// OpenSSL leaves pieces of keys there. Make it the first object of the function that makes the calls. The depth is that
// of the calls, plus a margin; on a thread with a small stack it is less, so that the host's guard pages are not
// touched.
class StackWiper {
public:
    // For opening a store: decoders, modules and dialogues go to an unknown depth.
    static constexpr std::size_t kAnyDepth = std::size_t{128} * 1024;
    // A signature goes 14 KiB deep with any kind of key, and half a KiB deeper through SoftHSM. Signatures are made
    // often, so the time for wiping matters.
    static constexpr std::size_t kSigningDepth = std::size_t{32} * 1024;

    explicit StackWiper(std::size_t cbDepth) : m_cbDepth(cbDepth) {}
    ~StackWiper();
    StackWiper(const StackWiper&) = delete;
    StackWiper& operator=(const StackWiper&) = delete;

private:
    const std::size_t m_cbDepth;
};

// For functions that return to the host. In a host with lazy binding, the dynamic linker would save the registers on
// the stack.
#if __has_cpp_attribute(gnu::zero_call_used_regs)
#define VEXTK_CLEAR_REGISTERS [[gnu::zero_call_used_regs("all")]]
#else
#define VEXTK_CLEAR_REGISTERS
#endif

}  // namespace vextk
