// Exit statuses of the tools.
#pragma once

namespace tools {

inline constexpr int kExitOk = 0;
inline constexpr int kExitError = 1;  // the requested action failed
inline constexpr int kExitUsage = 2;  // the command line is wrong

}  // namespace tools
