// Formats recorded calls: one line for each call, with the arguments as in C++.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

// A text in quotes; bytes outside printable ASCII as \r, \n or \xHH.
inline std::string Quoted(std::string_view text) {
    std::string strQuoted = "\"";
    for (const char ch : text) {
        if (ch == '\r') {
            strQuoted += "\\r";
        } else if (ch == '\n') {
            strQuoted += "\\n";
        } else if (ch < ' ' || ch > '~' || ch == '"' || ch == '\\') {
            char szEscape[8];
            std::snprintf(szEscape, sizeof szEscape, "\\x%02X", static_cast<unsigned>(static_cast<unsigned char>(ch)));
            strQuoted += szEscape;
        } else {
            strQuoted += ch;
        }
    }
    return strQuoted + '"';
}

// null for a null pointer.
inline std::string Quoted(const char* psz) {
    return psz == nullptr ? "null" : Quoted(std::string_view(psz));
}

// All 64 bits.
inline std::string Hexadecimal(std::uint64_t n) {
    char szNumber[24];
    std::snprintf(szNumber, sizeof szNumber, "0x%llx", static_cast<unsigned long long>(n));
    return szNumber;
}
