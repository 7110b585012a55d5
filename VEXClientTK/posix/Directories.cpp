#include "posix/Directories.h"

#include <sys/stat.h>

#include <cerrno>

namespace vexposix {
namespace {

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

}  // namespace

int MakeDirectories(char* pszPath, mode_t nMode) noexcept {
    int nErrno = Make(pszPath, nMode);
    if (nErrno == ENOENT && *pszPath != '\0') {
        nErrno = MakeParents(pszPath, nMode);
        nErrno = nErrno == 0 ? Make(pszPath, nMode) : nErrno;
    }
    return nErrno;
}

}  // namespace vexposix
