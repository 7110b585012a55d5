// Selects records.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Record.h"

namespace vexlog {

// A record must meet every condition that is set; one entry of a list is enough. A missing field meets no condition.
struct Filter {
    std::vector<std::string> functions = {};  // "ClearFilter" or the whole name
    std::vector<std::int32_t> threads = {};
    std::vector<std::int64_t> processes = {};
    std::optional<CivilMicroseconds> since = {};  // both are inclusive
    std::optional<CivilMicroseconds> until = {};
    std::string strText = {};  // the message contains this text; not a pattern
    bool bIgnoreCase = false;  // strText matches A to Z in both cases

    bool Passes(const Record& record) const;
};

}  // namespace vexlog
