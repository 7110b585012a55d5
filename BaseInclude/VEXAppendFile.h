// Safe opening of a file with a well-known name in a directory that all users may write to.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

// As fopen with "a+", but refuses what other users may have put in the file's place: symbolic and hard links, pipes,
// devices, and files that belong neither to the effective user nor to root. Never waits on a pipe. A new file is
// accessible to its owner only. Null on failure; the caller closes the stream with fclose.
inline std::FILE* VEXOpenToAppend(const char* pszPath) {
    constexpr mode_t nOwnerOnly = 0600;
    const int nDescriptor =
        open(pszPath, O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, nOwnerOnly);
    if (nDescriptor < 0) {
        return nullptr;
    }
    struct stat status = {};
    const bool bPlainFile = fstat(nDescriptor, &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink <= 1;
    const bool bTrusted = bPlainFile && (status.st_uid == geteuid() || status.st_uid == 0);
    std::FILE* const pFile = bTrusted ? fdopen(nDescriptor, "a+") : nullptr;
    if (pFile == nullptr) {
        close(nDescriptor);
    }
    return pFile;
}
