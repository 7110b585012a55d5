// Hexadecimal digits.
#pragma once

#include <string>
#include <string_view>

namespace vexposix {

inline constexpr char kUpperHexDigits[] = "0123456789ABCDEF";
inline constexpr char kLowerHexDigits[] = "0123456789abcdef";

// The value of a digit of either case; -1 for any other character.
constexpr int HexValue(char ch) {
    if (ch >= '0' && ch <= '9') {
        return ch - '0';
    }
    if (ch >= 'a' && ch <= 'f') {
        return ch - 'a' + 10;
    }
    return ch >= 'A' && ch <= 'F' ? ch - 'A' + 10 : -1;
}

// The byte whose two digits begin at nAt; -1 if there are no two digits.
constexpr int HexByteAt(std::string_view text, std::size_t nAt) {
    if (nAt + 1 >= text.size()) {
        return -1;
    }
    const int nHigh = HexValue(text[nAt]);
    const int nLow = HexValue(text[nAt + 1]);
    return nHigh < 0 || nLow < 0 ? -1 : nHigh * 16 + nLow;
}

// Two capital digits.
inline void AppendHexByte(std::string& strText, unsigned char uByte) {
    strText += kUpperHexDigits[uByte >> 4];
    strText += kUpperHexDigits[uByte & 0xF];
}

}  // namespace vexposix
