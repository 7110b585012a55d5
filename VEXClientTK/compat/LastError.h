// The calling thread's last error number, which GetLastError reports.
#pragma once

#include "VEXCompat.h"

namespace vextk {

void SetLastErrorNumber(DWORD dwError) noexcept;

}  // namespace vextk
