#include "GarbledName.h"

#include <algorithm>

#include "posix/Utf8Character.h"

namespace vexlog {
namespace {

// The letters in a character's bytes, the lowest byte first. The bytes after the last letter are zero.
struct Letters {
    char szText[4] = {};
    std::size_t n = 0;  // 0: not letters
};

Letters LettersOf(std::uint32_t ch) {
    Letters letters;
    for (; ch != 0; ch >>= 8) {
        const auto nByte = static_cast<unsigned char>(ch & 0xFF);
        if (nByte < 0x20 || nByte > 0x7E) {
            return {};
        }
        letters.szText[letters.n++] = static_cast<char>(nByte);
    }
    return letters;
}

// Takes one character of a garbled part from the front of the text. bFirst: it is the part's first character.
Letters TakeLetters(std::string_view& text, bool bFirst) {
    const vexposix::Utf8Character character = vexposix::FirstCharacter(text);
    if (character.ch < 0x80 || (bFirst && character.ch <= 0x10FFFF)) {
        return {};
    }
    const Letters letters = LettersOf(character.ch);
    text.remove_prefix(letters.n != 0 ? character.cb : 0);
    return letters;
}

bool IsLongLead(char ch) {
    return static_cast<unsigned char>(ch) >= 0xF8;
}

}  // namespace

bool MayBeGarbled(std::string_view text) {
    return std::any_of(text.begin(), text.end(), IsLongLead);
}

bool DecodeGarbled(std::string_view text, std::string& strDecoded) {
    strDecoded.clear();
    bool bFound = false;
    while (!text.empty()) {
        // A part goes on only after a character of four letters.
        std::size_t cLetters = 0;
        for (std::size_t n = 4; n == 4; cLetters += n) {
            const Letters letters = TakeLetters(text, cLetters == 0);
            n = letters.n;
            strDecoded.append(letters.szText, n);
        }
        bFound = bFound || cLetters != 0;
        // Skips to the next byte that may begin a part. If no part begins here, skips the first byte too.
        const bool bPass = cLetters == 0 && !text.empty();
        const auto nextBegin = std::find_if(text.begin() + (bPass ? 1 : 0), text.end(), IsLongLead);
        const auto cbPlain = static_cast<std::size_t>(nextBegin - text.begin());
        strDecoded.append(text.substr(0, cbPlain));
        text.remove_prefix(cbPlain);
    }
    return bFound;
}

}  // namespace vexlog
