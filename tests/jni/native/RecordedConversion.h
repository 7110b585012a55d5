// MultiByteToWideChar of a test program, which replaces the toolkit's. It records its calls with code page UTF-8 among
// the recording toolkit's calls, and can return prepared results.
//
//     MultiByteToWideChar(65001, 0, "abc", 3, null, 0) = 3
//     MultiByteToWideChar(65001, 0, "abc", 3, [4 zeros], 16) = 3
//
// The output buffer is shown as the number of zero characters at its start.
#pragma once

#include <optional>

namespace recorded_conversion {

// Results returned instead of the toolkit's. The buffer is then not written.
struct Answers {
    std::optional<int> nMeasured = std::nullopt;   // for the call without a buffer
    std::optional<int> nConverted = std::nullopt;  // for the call with a buffer
};

// These results are returned while it exists.
class Script {
public:
    explicit Script(Answers answers);
    ~Script();
    Script(const Script&) = delete;
    Script& operator=(const Script&) = delete;
};

}  // namespace recorded_conversion
