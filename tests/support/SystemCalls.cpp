#include "SystemCalls.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>

namespace {

thread_local SystemCalls* t_pCalls = nullptr;

// real(): the system call.
template <typename Real>
auto Perform(const char* pszName, Real real) -> decltype(real()) {
    const Outcome outcome = SystemCalls::Next(pszName);
    if (outcome.kind == Outcome::Kind::Fail) {
        errno = outcome.nValue;
        return -1;
    }
    return outcome.kind == Outcome::Kind::Zero ? 0 : real();
}

// real(cb): the system call for that many bytes.
template <typename Real>
ssize_t PerformTransfer(const char* pszName, size_t cb, Real real) {
    const Outcome outcome = SystemCalls::Next(pszName);
    switch (outcome.kind) {
        case Outcome::Kind::Fail:
            errno = outcome.nValue;
            return -1;
        case Outcome::Kind::Zero:
            return 0;
        case Outcome::Kind::Short:
            return real(std::min(cb, static_cast<size_t>(outcome.nValue)));
        case Outcome::Kind::Real:
            break;
    }
    return real(cb);
}

}  // namespace

SystemCalls::SystemCalls() {
    t_pCalls = this;
}

SystemCalls::~SystemCalls() {
    t_pCalls = nullptr;
}

void SystemCalls::Script(const std::string& strName, std::vector<Outcome> outcomes, bool bRepeat) {
    m_plans[strName] = {std::move(outcomes), 0, bRepeat};
}

void SystemCalls::Reset() {
    m_counts.clear();
    m_plans.clear();
}

Outcome SystemCalls::Next(const char* pszName) {
    SystemCalls* const pCalls = t_pCalls;
    if (pCalls == nullptr) {
        return kReal;
    }
    ++pCalls->m_counts[pszName];
    const auto found = pCalls->m_plans.find(pszName);
    if (found == pCalls->m_plans.end()) {
        return kReal;
    }
    Plan& plan = found->second;
    if (plan.nNext == plan.outcomes.size()) {
        if (!plan.bRepeat) {
            return kReal;
        }
        plan.nNext = 0;
    }
    const Outcome outcome = plan.outcomes[plan.nNext++];
    if (outcome.fnFirst) {
        outcome.fnFirst();
    }
    return outcome;
}

extern "C" {

int open(const char* pszPath, int nFlags, ...) {
    mode_t nMode = 0;
    if ((nFlags & (O_CREAT | O_TMPFILE)) != 0) {
        va_list arguments;
        va_start(arguments, nFlags);
        nMode = va_arg(arguments, mode_t);
        va_end(arguments);
    }
    const bool bNameless = (nFlags & O_TMPFILE) == O_TMPFILE;
    return Perform(bNameless                 ? "open without a name"
                   : (nFlags & O_CREAT) != 0 ? "open to create"
                                             : "open",
                   [=] { return static_cast<int>(syscall(SYS_openat, AT_FDCWD, pszPath, nFlags, nMode)); });
}

int close(int nDescriptor) {
    return Perform("close", [=] { return static_cast<int>(syscall(SYS_close, nDescriptor)); });
}

int fstat(int nDescriptor, struct stat* pStatus) noexcept {
    return Perform("fstat", [=] { return static_cast<int>(syscall(SYS_fstat, nDescriptor, pStatus)); });
}

int stat(const char* pszPath, struct stat* pStatus) noexcept {
    return Perform("stat", [=] { return static_cast<int>(syscall(SYS_stat, pszPath, pStatus)); });
}

int linkat(int nOldDirectory, const char* pszOld, int nNewDirectory, const char* pszNew, int nFlags) noexcept {
    return Perform("linkat", [=] {
        return static_cast<int>(syscall(SYS_linkat, nOldDirectory, pszOld, nNewDirectory, pszNew, nFlags));
    });
}

int lstat(const char* pszPath, struct stat* pStatus) noexcept {
    return Perform("lstat", [=] { return static_cast<int>(syscall(SYS_lstat, pszPath, pStatus)); });
}

int access(const char* pszPath, int nMode) noexcept {
    return Perform("access", [=] { return static_cast<int>(syscall(SYS_access, pszPath, nMode)); });
}

int mkdir(const char* pszPath, mode_t nMode) noexcept {
    return Perform("mkdir", [=] { return static_cast<int>(syscall(SYS_mkdir, pszPath, nMode)); });
}

int fcntl(int nDescriptor, int nCommand, ...) {
    va_list arguments;
    va_start(arguments, nCommand);
    const long nArgument = va_arg(arguments, long);
    va_end(arguments);
    return Perform("fcntl", [=] { return static_cast<int>(syscall(SYS_fcntl, nDescriptor, nCommand, nArgument)); });
}

off_t lseek(int nDescriptor, off_t nOffset, int nFrom) noexcept {
    return Perform("lseek", [=] { return static_cast<off_t>(syscall(SYS_lseek, nDescriptor, nOffset, nFrom)); });
}

int fchmod(int nDescriptor, mode_t nMode) noexcept {
    return Perform("fchmod", [=] { return static_cast<int>(syscall(SYS_fchmod, nDescriptor, nMode)); });
}

int flock(int nDescriptor, int nOperation) noexcept {
    return Perform("flock", [=] { return static_cast<int>(syscall(SYS_flock, nDescriptor, nOperation)); });
}

int renameat(int nOldDirectory, const char* pszOld, int nNewDirectory, const char* pszNew) noexcept {
    return Perform("renameat", [=] {
        return static_cast<int>(syscall(SYS_renameat, nOldDirectory, pszOld, nNewDirectory, pszNew));
    });
}

int ftruncate(int nDescriptor, off_t nLength) noexcept {
    return Perform("ftruncate", [=] { return static_cast<int>(syscall(SYS_ftruncate, nDescriptor, nLength)); });
}

int fsync(int nDescriptor) {
    return Perform("fsync", [=] { return static_cast<int>(syscall(SYS_fsync, nDescriptor)); });
}

int fdatasync(int nDescriptor) {
    return Perform("fdatasync", [=] { return static_cast<int>(syscall(SYS_fdatasync, nDescriptor)); });
}

ssize_t read(int nDescriptor, void* pBuffer, size_t cb) {
    return PerformTransfer("read", cb, [=](size_t n) { return syscall(SYS_read, nDescriptor, pBuffer, n); });
}

ssize_t write(int nDescriptor, const void* pData, size_t cb) {
    return PerformTransfer("write", cb, [=](size_t n) { return syscall(SYS_write, nDescriptor, pData, n); });
}

ssize_t pread(int nDescriptor, void* pBuffer, size_t cb, off_t nOffset) {
    return PerformTransfer("pread", cb,
                           [=](size_t n) { return syscall(SYS_pread64, nDescriptor, pBuffer, n, nOffset); });
}

ssize_t pwrite(int nDescriptor, const void* pData, size_t cb, off_t nOffset) {
    return PerformTransfer("pwrite", cb,
                           [=](size_t n) { return syscall(SYS_pwrite64, nDescriptor, pData, n, nOffset); });
}

}  // extern "C"
