// The program's exit statuses.
#pragma once

namespace vexlog {

inline constexpr int kExitOk = 0;
inline constexpr int kExitError = 1;  // reading or writing failed
inline constexpr int kExitUsage = 2;

}  // namespace vexlog
