// MultiByteToWideChar of a test program, in front of the toolkit's: writes down its calls with code page UTF-8 among
// the recording toolkit's calls, and can answer in the toolkit's stead.
//
//     MultiByteToWideChar(65001, 0, "abc", 3, null, 0) = 3
//     MultiByteToWideChar(65001, 0, "abc", 3, [4 zeros], 16) = 3
//
// The output buffer is written as the number of zero characters it starts with.
#pragma once

#include <optional>

namespace recorded_conversion {

// Answers in place of the toolkit's; nothing is written to the buffer then.
struct Answers {
    std::optional<int> nMeasured = std::nullopt;   // to the call without a buffer
    std::optional<int> nConverted = std::nullopt;  // to the call with one
};

// While it lives, these answers are given.
class Script {
public:
    explicit Script(Answers answers);
    ~Script();
    Script(const Script&) = delete;
    Script& operator=(const Script&) = delete;
};

}  // namespace recorded_conversion
