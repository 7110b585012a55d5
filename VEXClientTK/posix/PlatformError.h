// The platform's ERROR_ numbers for errno values. Pure; any thread.
#pragma once

#include "VEXCompat.h"

namespace vexposix {

// ENOENT counts as a missing file. Without a number of its own a value is ERROR_GEN_FAILURE.
DWORD ErrorFromErrno(int nErrno) noexcept;

// For a file that was to be opened or created (OpenFile.h): ENOENT means that its directory is missing.
DWORD ErrorFromOpening(int nErrno) noexcept;

}  // namespace vexposix
