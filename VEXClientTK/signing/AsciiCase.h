// ASCII letters, and names that are compared without regard to their case. The C library's functions follow the process
// locale, and in some locales "I" is not the capital of "i".
#pragma once

#include <algorithm>
#include <string_view>

namespace vextk {

constexpr char AsciiLower(char ch) {
    return ch >= 'A' && ch <= 'Z' ? static_cast<char>(ch - 'A' + 'a') : ch;
}

constexpr bool IsAsciiLetter(char ch) {
    return AsciiLower(ch) >= 'a' && AsciiLower(ch) <= 'z';
}

constexpr bool IsAsciiLetterOrDigit(char ch) {
    return IsAsciiLetter(ch) || (ch >= '0' && ch <= '9');
}

constexpr bool EqualIgnoringCase(std::string_view a, std::string_view b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](char chA, char chB) { return AsciiLower(chA) == AsciiLower(chB); });
}

}  // namespace vextk
