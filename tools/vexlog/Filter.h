// Which records are wanted.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Record.h"

namespace vexlog {

// Every condition that is set has to hold; of a list, one entry. What has no such field does not pass.
struct Filter {
    std::vector<std::string> functions = {};  // "ClearFilter" or the whole name
    std::vector<std::int32_t> threads = {};
    std::vector<std::int64_t> processes = {};
    std::optional<CivilMicroseconds> since = {};  // inclusive, both
    std::optional<CivilMicroseconds> until = {};
    std::string strText = {};  // somewhere in the message, a plain text
    bool bIgnoreCase = false;  // of strText; of the letters A to Z

    bool Passes(const Record& record) const;
};

}  // namespace vexlog
