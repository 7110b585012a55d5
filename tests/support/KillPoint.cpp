#include "KillPoint.h"

#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <iterator>
#include <new>
#include <string_view>

#include "SystemCalls.h"

namespace {

struct Shared {
    std::atomic<int> nCalls{0};
    std::atomic<bool> bInCut{false};
    std::atomic<bool> bMarkWritten{false};
    std::atomic<const char*> pszLast{""};  // a literal, at the same place in parent and child
    std::atomic<int> nKillAt{-1};          // -1: not armed
    std::atomic<kill_point::Where> where{kill_point::Where::kBefore};
};

Shared* s_pShared = nullptr;

[[noreturn]] void Die() {
    syscall(SYS_kill, getpid(), SIGKILL);
    for (;;) {
        pause();
    }
}

Outcome Decide(const system_calls::Call& call) {
    constexpr std::string_view kCounted[] = {"fstat", "flock", "lseek", "pread", "pwrite", "ftruncate", "close"};
    const std::string_view name = call.pszName;
    if (s_pShared->nKillAt < 0 || std::find(std::begin(kCounted), std::end(kCounted), name) == std::end(kCounted)) {
        return kReal;
    }
    const bool bHere = ++s_pShared->nCalls == s_pShared->nKillAt;
    s_pShared->pszLast = call.pszName;
    if (name == "pread") {
        s_pShared->bInCut = true;
    }
    if (bHere && s_pShared->where == kill_point::Where::kBefore) {
        return After(Die);
    }
    // A write of two bytes in one page is whole or does not happen. A longer write may be cut anywhere.
    Outcome outcome = bHere && name == "pwrite" && call.cb > 2 ? Short(static_cast<int>(call.cb / 2)) : kReal;
    outcome.fnAfter = [bHere, call](ssize_t nResult) {
        const std::string_view done = call.pszName;
        if (done == "ftruncate") {
            s_pShared->bInCut = false;
        } else if (done == "pwrite" && call.cb == 2 && nResult == 2) {
            s_pShared->bMarkWritten = true;
        }
        if (bHere) {
            Die();
        }
    };
    return outcome;
}

}  // namespace

namespace kill_point {

void Share() {
    if (s_pShared == nullptr) {
        void* const pMemory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (pMemory == MAP_FAILED) {
            std::abort();
        }
        s_pShared = static_cast<Shared*>(pMemory);
    }
    ::new (static_cast<void*>(s_pShared)) Shared;
    system_calls::g_pDecide = Decide;
}

Account Read() {
    return {s_pShared->nCalls, s_pShared->bInCut, s_pShared->bMarkWritten, s_pShared->pszLast.load()};
}

void Arm(int nCall, Where where) {
    s_pShared->where = where;
    s_pShared->nKillAt = nCall;
}

}  // namespace kill_point
