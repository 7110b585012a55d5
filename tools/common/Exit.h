// How the tools end.
#pragma once

namespace tools {

inline constexpr int kExitOk = 0;
inline constexpr int kExitError = 1;  // what was asked for failed
inline constexpr int kExitUsage = 2;  // the command line is wrong

}  // namespace tools
