// The calling thread's last error number, which GetLastError reports.
#pragma once

#include "VEXCompat.h"

namespace vextk {

void SetLastErrorNumber(DWORD dwError) noexcept;

// The platform's number for an errno value. ENOENT counts as a missing file: who knows that it was a directory says
// ERROR_PATH_NOT_FOUND itself. What has no number of its own is ERROR_GEN_FAILURE.
DWORD ErrorFromErrno(int nErrno) noexcept;

}  // namespace vextk
