// The beginning of a record in a log: the fields that tell a record from other text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "Record.h"

namespace vexlog {

// All positions count from the bracket of its first field.
struct RecordCore {
    Kind kind = Kind::kFragment;
    std::size_t cbCore = 0;  // up to where its kinds part
    std::int64_t nProcess = 0;
    std::int32_t nThread = 0;
    std::optional<CivilMicroseconds> time;
    std::size_t nTimeBegin = 0;
    std::size_t nTimeEnd = 0;
};

// No core is longer. Of a text that is at least so long, what comes behind does not matter.
inline constexpr std::size_t kLongestCore = 160;

// The core at the beginning of the text. False: there is none, and core is worth nothing.
bool ParseCore(std::string_view text, RecordCore& core);

}  // namespace vexlog
