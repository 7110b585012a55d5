// The platform's ERROR_ numbers for errno values. Pure; any thread.
#pragma once

#include "VEXCompat.h"

namespace vexposix {

// ENOENT means that a file is missing. Values without a number of their own become ERROR_GEN_FAILURE.
DWORD ErrorFromErrno(int nErrno) noexcept;

// For OpenOrCreateFile (OpenFile.h): ENOENT means that the file's directory is missing.
DWORD ErrorFromOpening(int nErrno) noexcept;

}  // namespace vexposix
