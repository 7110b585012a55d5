// Reads small and large files whole.
#pragma once

#include <cstddef>
#include <string>

namespace vexsign::verify {

// Enough for certificates and a detached signature.
inline constexpr std::size_t kMostSmallFile = std::size_t{16} * 1024 * 1024;

// "-" is standard input. Throws std::runtime_error with the name and the reason, also if the file is larger than
// cbMost.
std::string ReadWhole(const std::string& strName, std::size_t cbMost = kMostSmallFile);

}  // namespace vexsign::verify
