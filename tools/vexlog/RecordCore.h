// The beginning of a record in a log: the fields that tell a record from other text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "Record.h"

namespace vexlog {

// Positions count from the opening bracket of the first field.
struct RecordCore {
    Kind kind = Kind::kFragment;
    std::size_t cbCore = 0;  // the length of the fields that are parsed here
    std::int64_t nProcess = 0;
    std::int32_t nThread = 0;
    std::optional<CivilMicroseconds> time;
    std::size_t nTimeBegin = 0;
    std::size_t nTimeEnd = 0;
};

// No core is longer. ParseCore looks at no more of a text.
inline constexpr std::size_t kLongestCore = 160;

// Parses the core at the beginning of the text. False: there is none, and core is unspecified.
bool ParseCore(std::string_view text, RecordCore& core);

}  // namespace vexlog
