// What a fork locks, in order. The phases run one after the other before a fork, and backwards after it.
//
// A forked child has one thread. A lock that another thread of the parent held would stay locked in the child for ever,
// and what it guards might be half changed. So the thread that forks takes these locks first.
#pragma once

namespace vexposix {

enum class ForkPhase {
    kHandles,     // 1: the table of signing objects, then the locks of the objects
    kWrongPins,   // 2: the PINs that tokens have refused
    kModules,     // 3: PKCS #11 modules; the child gets a list of its own
    kOpenFiles,   // 4: the table of open files
    kFileClosing  // 5: closing a locked file
};

struct ForkHandlers {
    void (*pfnBefore)() = nullptr;
    void (*pfnInParent)() = nullptr;
    void (*pfnInChild)() = nullptr;
};

// Any thread; once for each phase, by whoever owns its locks, when they exist. Stays for the life of the process.
void AddToFork(ForkPhase phase, const ForkHandlers& handlers) noexcept;

}  // namespace vexposix
