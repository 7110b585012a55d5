// Opening a file whose name everybody on the machine knows.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

// As fopen with "a+", but for what others may have put in the file's place: nothing is written through a symbolic or
// hard link, into a pipe or device, or into a file that belongs neither to the effective user nor to root. Nothing
// waits on a pipe, and a new file is its owner's only. Null on failure; the caller gives the stream to fclose.
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
