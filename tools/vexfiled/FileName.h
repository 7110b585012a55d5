// The names that clients give to files. No file is looked at here.
#pragma once

#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "VEXCompat.h"

namespace vexfiled {

// Why something is not done: an ERROR_ number for the client, and a text for the log.
struct Refusal {
    DWORD dwError;
    std::string strReason;
};

inline constexpr std::size_t kMaxNameLength = 4095;      // bytes
inline constexpr std::size_t kMaxComponentLength = 255;  // bytes
inline constexpr std::size_t kMaxComponents = 64;

// The parent directories and, last, the file that a name leads to from the root: it makes no difference whether the
// name is absolute. Empty components and "." go away; the result has one component at least, and none is "..".
std::variant<std::vector<std::string>, Refusal> SplitName(std::string_view strName);

}  // namespace vexfiled
