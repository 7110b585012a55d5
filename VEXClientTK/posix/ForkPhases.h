// What a fork locks, in order. The phases run in this order before a fork, and in the reverse order after it.
//
// A forked child has one thread. If another thread of the parent held a lock, it would stay locked in the child for
// ever, and the data it guards might be half changed. So the thread that forks takes these locks first.
#pragma once

namespace vexposix {

enum class ForkPhase {
    kHandles,      // 1: the table of signing objects, then the locks of the objects
    kStoreFiles,   // 2: the store files that are in use; the child gets a list of its own
    kWrongPins,    // 3: the PINs that tokens have refused
    kModules,      // 4: PKCS #11 modules; the child gets a list of its own
    kOpenFiles,    // 5: the table of open files
    kFileClosing,  // 6: closing a locked file
    kLookups       // 7: no lock; the child has none of the running lookups of hosts
};

struct ForkHandlers {
    void (*pfnBefore)() = nullptr;
    void (*pfnInParent)() = nullptr;
    void (*pfnInChild)() = nullptr;
};

// Any thread. The owner of a phase's locks calls it once, when the locks exist. The handlers stay for the life of the
// process.
void AddToFork(ForkPhase phase, const ForkHandlers& handlers) noexcept;

}  // namespace vexposix
