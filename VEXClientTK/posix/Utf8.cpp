#include "posix/Utf8.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace vexposix {
namespace {

constexpr char32_t kFirstLowSurrogate = 0xDC00;
constexpr char32_t kLastCharacter = 0x10FFFF;

constexpr bool IsSurrogate(char32_t ch) {
    return (ch & 0xFFFFF800) == 0xD800;
}

struct Decoded {
    char32_t ch = 0;
    std::size_t cb = 0;  // bytes of the encoding; 0: malformed
};

// Decodes one shortest-form sequence of two to four bytes. Accepts surrogates.
Decoded DecodeSequence(std::string_view text) {
    const auto byteAt = [text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned nLead = text.empty() ? 0 : byteAt(0);
    if (nLead < 0xC2 || nLead > 0xF4) {
        return {};
    }
    const std::size_t cb = nLead < 0xE0 ? 2 : nLead < 0xF0 ? 3 : 4;
    if (text.size() < cb) {
        return {};
    }
    char32_t ch = nLead & (0x7FU >> cb);
    for (std::size_t i = 1; i < cb; ++i) {
        if ((byteAt(i) & 0xC0U) != 0x80) {
            return {};
        }
        ch = ch << 6 | (byteAt(i) & 0x3FU);
    }
    constexpr char32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (ch < kSmallest[cb] || ch > kLastCharacter) {
        return {};
    }
    return {ch, cb};
}

// Decodes one character that is not ASCII.
Decoded DecodeOne(std::string_view text) {
    const Decoded first = DecodeSequence(text);
    if (!IsSurrogate(first.ch)) {
        return first;
    }
    const Decoded second = DecodeSequence(text.substr(first.cb));
    if (first.ch >= kFirstLowSurrogate || !IsSurrogate(second.ch) || second.ch < kFirstLowSurrogate) {
        return {};
    }
    return {0x10000 + ((first.ch & 0x3FF) << 10 | (second.ch & 0x3FF)), first.cb + second.cb};
}

// The number of ASCII bytes at the beginning.
std::size_t AsciiRun(std::string_view text) {
    std::size_t n = 0;
    for (; text.size() - n >= 8; n += 8) {
        std::uint64_t nBlock = 0;
        std::memcpy(&nBlock, text.data() + n, sizeof nBlock);
        if ((nBlock & 0x8080808080808080) != 0) {
            break;
        }
    }
    while (n < text.size() && static_cast<unsigned char>(text[n]) < 0x80) {
        ++n;
    }
    return n;
}

// The number of ASCII characters at the beginning.
std::size_t AsciiRun(std::wstring_view text) {
    constexpr std::size_t kBlock = 16;
    std::size_t n = 0;
    for (; text.size() - n >= kBlock; n += kBlock) {
        // An index of the view would be checked, and the compiler then uses no vector instructions.
        const wchar_t* const pchBlock = text.data() + n;
        char32_t nAll = 0;
        for (std::size_t i = 0; i < kBlock; ++i) {
            nAll |= static_cast<char32_t>(pchBlock[i]);
        }
        if (nAll >= 0x80) {
            break;
        }
    }
    while (n < text.size() && static_cast<char32_t>(text[n]) < 0x80) {
        ++n;
    }
    return n;
}

void NarrowAscii(std::wstring_view text, char* pchOut) {
    std::transform(text.begin(), text.end(), pchOut, [](wchar_t ch) { return static_cast<char>(ch); });
}

// The size of the encoding of a character that is not ASCII. 0: it has no encoding.
std::size_t EncodedSize(char32_t ch) {
    if (IsSurrogate(ch) || ch > kLastCharacter) {
        return 0;
    }
    return ch < 0x800 ? 2 : ch < 0x10000 ? 3 : 4;
}

// Calls the functions for the pieces of a text: runs of ASCII and single other characters. False: the rest is
// malformed.
template <typename OnAscii, typename OnCharacter>
bool WalkUtf8(std::string_view text, OnAscii onAscii, OnCharacter onCharacter) {
    for (;;) {
        const std::size_t cbRun = AsciiRun(text);
        onAscii(text.substr(0, cbRun));
        text.remove_prefix(cbRun);
        if (text.empty()) {
            return true;
        }
        const Decoded decoded = DecodeOne(text);
        if (decoded.cb == 0) {
            return false;
        }
        onCharacter(decoded.ch);
        text.remove_prefix(decoded.cb);
    }
}

// The same for wide text. onCharacter also gets the size of the character's encoding.
template <typename OnAscii, typename OnCharacter>
bool WalkWide(std::wstring_view text, OnAscii onAscii, OnCharacter onCharacter) {
    for (;;) {
        const std::size_t cchRun = AsciiRun(text);
        onAscii(text.substr(0, cchRun));
        text.remove_prefix(cchRun);
        if (text.empty()) {
            return true;
        }
        const auto ch = static_cast<char32_t>(text.front());
        const std::size_t cb = EncodedSize(ch);
        if (cb == 0) {
            return false;
        }
        onCharacter(ch, cb);
        text.remove_prefix(1);
    }
}

}  // namespace

std::optional<std::size_t> DecodedLength(std::string_view text) noexcept {
    std::size_t cch = 0;
    const bool bWellFormed = WalkUtf8(
        text, [&cch](std::string_view run) { cch += run.size(); }, [&cch](char32_t) { ++cch; });
    return bWellFormed ? std::optional(cch) : std::nullopt;
}

bool IsPlainUtf8(std::string_view text) noexcept {
    std::size_t cbPlain = 0;
    const bool bWellFormed = WalkUtf8(
        text, [&cbPlain](std::string_view run) { cbPlain += run.size(); },
        [&cbPlain](char32_t ch) { cbPlain += EncodedSize(ch); });
    return bWellFormed && cbPlain == text.size();
}

void DecodeUtf8(std::string_view text, wchar_t* pchOut, std::size_t cch) noexcept {
    if (cch == text.size()) {
        std::copy(text.begin(), text.end(), pchOut);
        return;
    }
    WalkUtf8(
        text,
        [&pchOut](std::string_view run) {
            wchar_t* const pchRun = pchOut;
            pchOut = std::copy(run.begin(), run.end(), pchRun);
        },
        [&pchOut](char32_t ch) { *pchOut++ = static_cast<wchar_t>(ch); });
}

std::optional<std::size_t> EncodedLength(std::wstring_view text) noexcept {
    std::size_t cb = 0;
    const bool bEncodable = WalkWide(
        text, [&cb](std::wstring_view run) { cb += run.size(); },
        [&cb](char32_t, std::size_t cbCharacter) { cb += cbCharacter; });
    return bEncodable ? std::optional(cb) : std::nullopt;
}

void EncodeUtf8(std::wstring_view text, char* pchOut, std::size_t cb) noexcept {
    if (cb == text.size()) {
        NarrowAscii(text, pchOut);
        return;
    }
    const auto encodeAscii = [&pchOut](std::wstring_view run) {
        NarrowAscii(run, pchOut);
        pchOut += run.size();
    };
    const auto encodeCharacter = [&pchOut](char32_t ch, std::size_t cbCharacter) {
        constexpr char32_t kLeadMark[] = {0, 0, 0xC0, 0xE0, 0xF0};
        for (std::size_t i = cbCharacter - 1; i > 0; --i) {
            pchOut[i] = static_cast<char>(0x80 | (ch & 0x3F));
            ch >>= 6;
        }
        *pchOut = static_cast<char>(kLeadMark[cbCharacter] | ch);
        pchOut += cbCharacter;
    };
    WalkWide(text, encodeAscii, encodeCharacter);
}

}  // namespace vexposix
