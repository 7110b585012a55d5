// Makes directories, and enters them.
#pragma once

#include <sys/types.h>

#include "posix/FileDescriptor.h"

namespace vexposix {

// Makes a directory and its missing parents with nMode, less the bits of the umask. Any thread. Returns errno, 0 for
// success; EEXIST: the name already exists. The function changes the path while it runs and restores it, but if a
// parent cannot be made, the path ends there.
int MakeDirectories(char* pszPath, mode_t nMode) noexcept;

struct EnteredDirectory {
    FileDescriptor descriptor;  // for openat; not open: nErrno says why
    int nErrno = 0;
};

// Opens a directory of the directory nParent. Makes it, with mode 0700, if it is missing. Any thread. ELOOP: the name
// is a symbolic link, which is never followed; ENOTDIR: it is another thing; EBUSY: others make and remove it again and
// again, or signals interrupt the calls.
EnteredDirectory EnterDirectory(int nParent, const char* pszName) noexcept;

}  // namespace vexposix
