// Reads UTF-8 one character at a time. It also reads the long forms of ISO/IEC 10646:1993: glibc writes characters up
// to 0x7FFFFFFF in up to six bytes.
#pragma once

#include <cstdint>
#include <string_view>

namespace vexposix {

struct Utf8Character {
    std::uint32_t ch = 0;
    std::size_t cb = 0;  // 0: no character begins here

    // Whether it is a character of Unicode.
    bool IsUnicode() const { return cb != 0 && ch <= 0x10FFFF && (ch < 0xD800 || ch > 0xDFFF); }
};

// The character at the beginning of the text. Overlong and incomplete forms are not characters.
inline Utf8Character FirstCharacter(std::string_view text) {
    if (text.empty()) {
        return {};
    }
    const auto nFirst = static_cast<unsigned char>(text[0]);
    if (nFirst < 0x80) {
        return {nFirst, 1};
    }
    struct Form {
        unsigned char nMask;
        unsigned char nLead;
        std::uint32_t chLeast;
    };
    constexpr Form kForms[] = {{0xE0, 0xC0, 0x80},
                               {0xF0, 0xE0, 0x800},
                               {0xF8, 0xF0, 0x10000},
                               {0xFC, 0xF8, 0x200000},
                               {0xFE, 0xFC, 0x4000000}};
    std::size_t cb = 2;
    for (const Form& form : kForms) {
        if ((nFirst & form.nMask) == form.nLead) {
            if (text.size() < cb) {
                return {};
            }
            std::uint32_t ch = nFirst & static_cast<unsigned char>(~form.nMask);
            for (std::size_t i = 1; i < cb; ++i) {
                const auto nNext = static_cast<unsigned char>(text[i]);
                if ((nNext & 0xC0) != 0x80) {
                    return {};
                }
                ch = (ch << 6) | (nNext & 0x3FU);
            }
            return ch < form.chLeast ? Utf8Character{} : Utf8Character{ch, cb};
        }
        ++cb;
    }
    return {};
}

}  // namespace vexposix
