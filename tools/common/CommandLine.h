// How the program ends.
#pragma once

namespace vexsign {

inline constexpr int kExitOk = 0;
inline constexpr int kExitError = 1;
inline constexpr int kExitUsage = 2;

}  // namespace vexsign
