// Checks the file names that clients send, without access to the files.
#pragma once

#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "VEXCompat.h"

namespace vexfiled {

// Why a file is not opened: an ERROR_ number for the client, and a text for the log.
struct Refusal {
    DWORD dwError;
    std::string strReason;
};

inline constexpr std::size_t kMaxNameLength = 4095;      // bytes
inline constexpr std::size_t kMaxComponentLength = 255;  // bytes
inline constexpr std::size_t kMaxComponents = 64;

// Splits a name into the parent directories below the root and, last, the file. All names start at the root, absolute
// or not. Empty components and "." are removed; the result has at least one component, and none is "..".
std::variant<std::vector<std::string>, Refusal> SplitName(std::string_view strName);

}  // namespace vexfiled
