#include "signing/StackWiper.h"

#include <alloca.h>
#include <pthread.h>
#include <string.h>

#include <algorithm>
#include <cstdint>

#include "VEXRegisters.h"

namespace vextk {
namespace {

// A JVM has guard pages of its own at the low end of a thread's stack.
constexpr std::uintptr_t kKeepFree = std::uintptr_t{192} * 1024;

// The thread's stack; empty if the system does not tell.
struct Stack {
    std::uintptr_t nLowest = 0;
    std::uintptr_t nEnd = 0;
    bool bAsked = false;
};

// Asks the system once for each thread: for the first thread of a process, libc reads a file.
const Stack& StackOfThread() {
    static thread_local Stack t_stack;
    if (!t_stack.bAsked) {
        t_stack.bAsked = true;
        pthread_attr_t attributes;
        if (pthread_getattr_np(pthread_self(), &attributes) == 0) {
            void* pLowest = nullptr;
            size_t cbStack = 0;
            if (pthread_attr_getstack(&attributes, &pLowest, &cbStack) == 0) {
                t_stack.nLowest = reinterpret_cast<std::uintptr_t>(pLowest);
                t_stack.nEnd = t_stack.nLowest + cbStack;
            }
            pthread_attr_destroy(&attributes);
        }
    }
    return t_stack;
}

[[gnu::noinline]] void WipeBelow(size_t cb) {
    explicit_bzero(alloca(cb), cb);  // uses vector instructions, unlike OPENSSL_cleanse
}

}  // namespace

StackWiper::~StackWiper() {
    const auto nHere = reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
    const Stack& stack = StackOfThread();
    // The host may have switched to a stack that it made itself, whose limits are unknown.
    const bool bOnIt = nHere > stack.nLowest && nHere < stack.nEnd;
    if (bOnIt && nHere - stack.nLowest > kKeepFree) {
        WipeBelow(std::min<std::uintptr_t>(m_cbDepth, nHere - stack.nLowest - kKeepFree));
    }
    ClearVectorRegisters();
}

}  // namespace vextk
