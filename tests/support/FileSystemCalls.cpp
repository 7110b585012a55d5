// libc's file functions for SystemCalls.h, except those of PrivateLog.cpp.
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>

#include "SystemCalls.h"

using system_calls::Perform;

namespace {

template <typename... Arguments>
int PerformCall(const char* pszName, long nNumber, Arguments... arguments) {
    return Perform({pszName}, [=](std::size_t) { return static_cast<int>(syscall(nNumber, arguments...)); });
}

}  // namespace

extern "C" {

int close(int nDescriptor) {
    return PerformCall("close", SYS_close, nDescriptor);
}

int fstat(int nDescriptor, struct stat* pStatus) noexcept {
    return PerformCall("fstat", SYS_fstat, nDescriptor, pStatus);
}

int lstat(const char* pszPath, struct stat* pStatus) noexcept {
    return PerformCall("lstat", SYS_lstat, pszPath, pStatus);
}

int mkdir(const char* pszPath, mode_t nMode) noexcept {
    return PerformCall("mkdir", SYS_mkdir, pszPath, nMode);
}

int mkdirat(int nDirectory, const char* pszPath, mode_t nMode) noexcept {
    return PerformCall("mkdirat", SYS_mkdirat, nDirectory, pszPath, nMode);
}

int fcntl(int nDescriptor, int nCommand, ...) {
    va_list arguments;
    va_start(arguments, nCommand);
    const long nArgument = va_arg(arguments, long);
    va_end(arguments);
    return PerformCall("fcntl", SYS_fcntl, nDescriptor, nCommand, nArgument);
}

off_t lseek(int nDescriptor, off_t nOffset, int nFrom) noexcept {
    return Perform({"lseek"},
                   [=](std::size_t) { return static_cast<off_t>(syscall(SYS_lseek, nDescriptor, nOffset, nFrom)); });
}

int fchmod(int nDescriptor, mode_t nMode) noexcept {
    return PerformCall("fchmod", SYS_fchmod, nDescriptor, nMode);
}

int flock(int nDescriptor, int nOperation) noexcept {
    return PerformCall("flock", SYS_flock, nDescriptor, nOperation);
}

int renameat(int nOldDirectory, const char* pszOld, int nNewDirectory, const char* pszNew) noexcept {
    return PerformCall("renameat", SYS_renameat, nOldDirectory, pszOld, nNewDirectory, pszNew);
}

int ftruncate(int nDescriptor, off_t nLength) noexcept {
    return PerformCall("ftruncate", SYS_ftruncate, nDescriptor, nLength);
}

int fsync(int nDescriptor) {
    return PerformCall("fsync", SYS_fsync, nDescriptor);
}

int fdatasync(int nDescriptor) {
    return PerformCall("fdatasync", SYS_fdatasync, nDescriptor);
}

ssize_t read(int nDescriptor, void* pBuffer, size_t cb) {
    return Perform({"read", cb, nDescriptor}, [=](size_t n) { return syscall(SYS_read, nDescriptor, pBuffer, n); });
}

ssize_t write(int nDescriptor, const void* pData, size_t cb) {
    return Perform({"write", cb, nDescriptor}, [=](size_t n) { return syscall(SYS_write, nDescriptor, pData, n); });
}

ssize_t pread(int nDescriptor, void* pBuffer, size_t cb, off_t nOffset) {
    return Perform({"pread", cb, nDescriptor},
                   [=](size_t n) { return syscall(SYS_pread64, nDescriptor, pBuffer, n, nOffset); });
}

ssize_t pwrite(int nDescriptor, const void* pData, size_t cb, off_t nOffset) {
    return Perform({"pwrite", cb, nDescriptor},
                   [=](size_t n) { return syscall(SYS_pwrite64, nDescriptor, pData, n, nOffset); });
}

}  // extern "C"
