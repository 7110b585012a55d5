#include "posix/Directories.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <utility>

namespace vexposix {
namespace {

// Other processes may make or remove a directory between two steps. This limits the attempts.
constexpr int kMaxAttempts = 100;

int Make(const char* pszPath, mode_t nMode) {
    return mkdir(pszPath, nMode) == 0 ? 0 : errno;
}

// mkdir can fail for another reason than EEXIST, such as a read-only file system, although the directory exists.
int MakeParent(const char* pszPath, mode_t nMode) {
    const int nErrno = Make(pszPath, nMode);
    struct stat status {};
    return nErrno == EEXIST || (nErrno != 0 && stat(pszPath, &status) == 0) ? 0 : nErrno;
}

// Makes each directory whose path ends before a separator.
int MakeParents(char* pszPath, mode_t nMode) {
    for (char* pch = pszPath + 1; *pch != '\0'; ++pch) {
        if (*pch != '/' || pch[-1] == '/') {
            continue;
        }
        *pch = '\0';
        if (const int nErrno = MakeParent(pszPath, nMode); nErrno != 0) {
            return nErrno;
        }
        *pch = '/';
    }
    return 0;
}

// Returns errno.
int CheckDirectory(int nDescriptor) {
    struct stat status {};
    if (fstat(nDescriptor, &status) != 0) {
        return errno;
    }
    return S_ISLNK(status.st_mode) ? ELOOP : S_ISDIR(status.st_mode) ? 0 : ENOTDIR;
}

}  // namespace

int MakeDirectories(char* pszPath, mode_t nMode) noexcept {
    int nErrno = Make(pszPath, nMode);
    if (nErrno == ENOENT && *pszPath != '\0') {
        nErrno = MakeParents(pszPath, nMode);
        nErrno = nErrno == 0 ? Make(pszPath, nMode) : nErrno;
    }
    return nErrno;
}

EnteredDirectory EnterDirectory(int nParent, const char* pszName) noexcept {
    for (int nRound = 0; nRound < kMaxAttempts; ++nRound) {
        FileDescriptor descriptor(openat(nParent, pszName, O_PATH | O_NOFOLLOW | O_CLOEXEC));
        if (descriptor.IsOpen()) {
            const int nErrno = CheckDirectory(descriptor.Get());
            return {nErrno == 0 ? std::move(descriptor) : FileDescriptor(), nErrno};
        }
        if (errno == ENOENT && mkdirat(nParent, pszName, S_IRWXU) == 0) {
            continue;
        }
        if (errno != ENOENT && errno != EEXIST && errno != EINTR) {
            return {FileDescriptor(), errno};
        }
    }
    return {FileDescriptor(), EBUSY};
}

}  // namespace vexposix
