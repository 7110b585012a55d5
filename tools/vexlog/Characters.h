#pragma once

namespace vexlog {

// ASCII alone, whatever the locale.
constexpr bool IsDigit(char ch) {
    return ch >= '0' && ch <= '9';
}

constexpr bool IsLetter(char ch) {
    return (ch >= 'A' && ch <= 'Z') || (ch >= 'a' && ch <= 'z');
}

}  // namespace vexlog
