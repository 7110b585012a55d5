// Comparison of names without regard to case: of ASCII letters alone. The C library's functions follow the process
// locale, and "I" is not the capital of "i" everywhere.
#pragma once

#include <algorithm>
#include <string_view>

namespace vextk {

constexpr char AsciiLower(char ch) {
    return ch >= 'A' && ch <= 'Z' ? static_cast<char>(ch - 'A' + 'a') : ch;
}

constexpr bool EqualIgnoringCase(std::string_view a, std::string_view b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](char chA, char chB) { return AsciiLower(chA) == AsciiLower(chB); });
}

}  // namespace vextk
