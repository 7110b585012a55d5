// Judges texts for readers: independent of what the product escapes them with.
#pragma once

#include <cstddef>
#include <cwchar>
#include <string>
#include <vector>

// The characters of a text, by the C library's decoder; the process's locale must use UTF-8. Null characters are
// characters. False: the text is not UTF-8.
inline bool DecodeText(const std::string& strText, std::vector<wchar_t>& characters) {
    std::mbstate_t state{};
    for (std::size_t i = 0; i < strText.size();) {
        wchar_t ch = 0;
        const std::size_t cb = std::mbrtowc(&ch, strText.data() + i, strText.size() - i, &state);
        if (cb == static_cast<std::size_t>(-1) || cb == static_cast<std::size_t>(-2)) {
            return false;
        }
        characters.push_back(ch);
        i += cb == 0 ? 1 : cb;
    }
    return true;
}

inline bool IsUtf8(const std::string& strText) {
    std::vector<wchar_t> characters;
    return DecodeText(strText, characters);
}

// Whether the text is UTF-8 in one line and has no control character, nor one that reorders text or has no width.
inline bool IsVisibleLine(const std::string& strText) {
    std::vector<wchar_t> characters;
    if (!DecodeText(strText, characters)) {
        return false;
    }
    for (const wchar_t ch : characters) {
        const bool bControl = ch < 0x20 || (ch >= 0x7F && ch <= 0x9F) || ch == 0x2028 || ch == 0x2029;
        const bool bReorders = ch == 0x61C || ch == 0x200E || ch == 0x200F || (ch >= 0x202A && ch <= 0x202E) ||
                               (ch >= 0x2066 && ch <= 0x2069);
        const bool bNoWidth = ch == 0xAD || ch == 0x180E || (ch >= 0x200B && ch <= 0x200D) ||
                              (ch >= 0x2060 && ch <= 0x2064) || ch == 0xFEFF || (ch >= 0xE0000 && ch <= 0xE007F);
        if (bControl || bReorders || bNoWidth) {
            return false;
        }
    }
    return true;
}
