// Selects records and calls.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
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

    // Of all conditions except the text.
    bool PassesFields(std::string_view function, std::int64_t nProcess, std::int32_t nThread,
                      const std::optional<CivilMicroseconds>& time) const;
};

}  // namespace vexlog
