#include "posix/ForkPhases.h"

#include <pthread.h>

#include <array>
#include <atomic>

namespace vexposix {
namespace {

struct Phase {
    ForkHandlers handlers;
    std::atomic<bool> bAdded{false};
    bool bBeforeDone = false;  // a phase that is added during a fork waits for the next one
};

constinit std::array<Phase, static_cast<std::size_t>(ForkPhase::kLookups) + 1> s_phases{};

void Call(void (*pfn)()) {
    if (pfn != nullptr) {
        pfn();
    }
}

void BeforeFork() {
    for (Phase& phase : s_phases) {
        phase.bBeforeDone = phase.bAdded;
        if (phase.bBeforeDone) {
            Call(phase.handlers.pfnBefore);
        }
    }
}

void AfterFork(void (*ForkHandlers::*pAfter)()) {
    for (std::size_t n = s_phases.size(); n-- > 0;) {
        if (s_phases[n].bBeforeDone) {
            Call(s_phases[n].handlers.*pAfter);
        }
    }
}

}  // namespace

void AddToFork(ForkPhase phase, const ForkHandlers& handlers) noexcept {
    static const int s_nRegistered = pthread_atfork(
        BeforeFork, [] { AfterFork(&ForkHandlers::pfnInParent); }, [] { AfterFork(&ForkHandlers::pfnInChild); });
    static_cast<void>(s_nRegistered);
    Phase& entry = s_phases[static_cast<std::size_t>(phase)];
    entry.handlers = handlers;
    entry.bAdded = true;
}

}  // namespace vexposix
