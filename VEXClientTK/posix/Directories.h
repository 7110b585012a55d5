// Makes directories.
#pragma once

#include <sys/types.h>

namespace vexposix {

// Makes a directory and its missing parents with nMode, less the bits of the umask. Any thread. Returns errno, 0 for
// success; EEXIST: the name already exists. The function changes the path while it runs and restores it, but if a
// parent cannot be made, the path ends there.
int MakeDirectories(char* pszPath, mode_t nMode) noexcept;

}  // namespace vexposix
