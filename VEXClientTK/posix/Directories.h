// Makes directories.
#pragma once

#include <sys/types.h>

namespace vexposix {

// Makes a directory, and its parents when they are missing, with nMode as the umask leaves it. Any thread. Returns
// errno: EEXIST when there is something of that name already. The path is changed while it runs, and whole again when
// it returns, but ends at the parent that cannot be made if there is one.
int MakeDirectories(char* pszPath, mode_t nMode) noexcept;

}  // namespace vexposix
