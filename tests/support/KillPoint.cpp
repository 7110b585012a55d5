#include "KillPoint.h"

#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <new>

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

enum class Step { kPass, kDieBefore, kDieInside };

Step StepOf(const char* pszName) {
    if (s_pShared == nullptr || s_pShared->nKillAt < 0) {
        return Step::kPass;
    }
    const bool bHere = ++s_pShared->nCalls == s_pShared->nKillAt;
    s_pShared->pszLast = pszName;
    if (std::strcmp(pszName, "pread") == 0) {
        s_pShared->bInCut = true;
    }
    if (!bHere) {
        return Step::kPass;
    }
    return s_pShared->where == kill_point::Where::kBefore ? Step::kDieBefore : Step::kDieInside;
}

// real(): the system call.
template <typename Real>
auto Perform(const char* pszName, Real real) -> decltype(real()) {
    const Step step = StepOf(pszName);
    if (step == Step::kDieBefore) {
        Die();
    }
    const auto result = real();
    if (s_pShared != nullptr && std::strcmp(pszName, "ftruncate") == 0) {
        s_pShared->bInCut = false;
    }
    if (step == Step::kDieInside) {
        Die();
    }
    return result;
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
}

Account Read() {
    return {s_pShared->nCalls, s_pShared->bInCut, s_pShared->bMarkWritten, s_pShared->pszLast.load()};
}

void Arm(int nCall, Where where) {
    s_pShared->where = where;
    s_pShared->nKillAt = nCall;
}

}  // namespace kill_point

extern "C" {

int fstat(int nDescriptor, struct stat* pStatus) noexcept {
    return Perform("fstat", [=] { return static_cast<int>(syscall(SYS_fstat, nDescriptor, pStatus)); });
}

int flock(int nDescriptor, int nOperation) noexcept {
    return Perform("flock", [=] { return static_cast<int>(syscall(SYS_flock, nDescriptor, nOperation)); });
}

off_t lseek(int nDescriptor, off_t nOffset, int nFrom) noexcept {
    return Perform("lseek", [=] { return static_cast<off_t>(syscall(SYS_lseek, nDescriptor, nOffset, nFrom)); });
}

ssize_t pread(int nDescriptor, void* pBuffer, size_t cb, off_t nOffset) {
    return Perform("pread", [=] { return syscall(SYS_pread64, nDescriptor, pBuffer, cb, nOffset); });
}

ssize_t pwrite(int nDescriptor, const void* pData, size_t cb, off_t nOffset) {
    const Step step = StepOf("pwrite");
    if (step == Step::kDieBefore) {
        Die();
    }
    // Two bytes of one page are written, or not; what is longer may be cut short anywhere.
    const size_t cbNow = step == Step::kDieInside && cb > 2 ? cb / 2 : cb;
    const ssize_t nResult = syscall(SYS_pwrite64, nDescriptor, pData, cbNow, nOffset);
    if (s_pShared != nullptr && cb == 2 && nResult == 2) {
        s_pShared->bMarkWritten = true;
    }
    if (step == Step::kDieInside) {
        Die();
    }
    return nResult;
}

int ftruncate(int nDescriptor, off_t nLength) noexcept {
    return Perform("ftruncate", [=] { return static_cast<int>(syscall(SYS_ftruncate, nDescriptor, nLength)); });
}

int close(int nDescriptor) {
    return Perform("close", [=] { return static_cast<int>(syscall(SYS_close, nDescriptor)); });
}

}  // extern "C"
