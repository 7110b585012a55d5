#include "compat/LocaleText.h"

#include <langinfo.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <cwchar>

#include "posix/Utf8.h"

namespace vextk {
namespace {

using vexposix::DecodedLength;
using vexposix::EncodedLength;

constexpr auto kMalformed = static_cast<std::size_t>(-1);
constexpr auto kCutOff = static_cast<std::size_t>(-2);

template <typename Char>
class Output {
public:
    explicit Output(std::span<Char> room) : m_room(room) {}

    void Append(const Char* pText, std::size_t n) {
        if (m_nLength < m_room.size()) {
            std::copy_n(pText, std::min(n, m_room.size() - m_nLength), m_room.begin() + ToOffset(m_nLength));
        }
        m_nLength += n;
    }
    std::size_t Length() const { return m_nLength; }

private:
    static std::ptrdiff_t ToOffset(std::size_t n) { return static_cast<std::ptrdiff_t>(n); }

    std::span<Char> m_room;
    std::size_t m_nLength = 0;
};

enum class Codeset { kUtf8, kAscii, kOther };

// Asked for each text, because the process may change its locale at any time.
Codeset CurrentCodeset() {
    const char* const pszName = nl_langinfo(CODESET);
    if (std::strcmp(pszName, "UTF-8") == 0) {
        return Codeset::kUtf8;
    }
    return std::strcmp(pszName, "ANSI_X3.4-1968") == 0 ? Codeset::kAscii : Codeset::kOther;  // of the C locale
}

// Decodes text without terminators. False: malformed.
bool DecodeRun(std::string_view run, Output<wchar_t>& output) {
    // Stays unchanged when libc holds a character back until it has seen the next one.
    constexpr auto kNoCharacter = static_cast<wchar_t>(-1);
    std::mbstate_t state{};
    for (;;) {
        // The terminator at the end makes libc return a character that it has held back.
        const bool bAtEnd = run.empty();
        wchar_t ch = kNoCharacter;
        const std::size_t cb =
            bAtEnd ? std::mbrtowc(&ch, "", 1, &state) : std::mbrtowc(&ch, run.data(), run.size(), &state);
        if (cb == kMalformed || cb == kCutOff) {
            return false;
        }
        if (ch == L'\0') {
            return bAtEnd;
        }
        if (ch != kNoCharacter) {
            output.Append(&ch, 1);
        }
        run.remove_prefix(cb);
    }
}

// Encodes one character, or its substitute. kMalformed: neither can be encoded.
std::size_t EncodeCharacter(char* pOut, wchar_t ch, std::mbstate_t& state, Substitute* pSubstitute) {
    const std::mbstate_t before = state;
    const std::size_t cb = std::wcrtomb(pOut, ch, &state);
    if (cb != kMalformed || pSubstitute == nullptr) {
        return cb;
    }
    state = before;
    pSubstitute->bUsed = true;
    return std::wcrtomb(pOut, pSubstitute->ch, &state);
}

}  // namespace

std::optional<std::size_t> DecodedLengthAsUtf8(std::string_view text) {
    const bool bAscii = CurrentCodeset() != Codeset::kOther && DecodedLength(text) == text.size();
    return bAscii ? std::optional(text.size()) : std::nullopt;
}

std::optional<std::size_t> EncodedLengthAsUtf8(std::wstring_view text) {
    const Codeset codeset = CurrentCodeset();
    if (codeset == Codeset::kOther) {
        return std::nullopt;
    }
    const std::optional<std::size_t> cb = EncodedLength(text);
    return codeset == Codeset::kUtf8 || cb == text.size() ? cb : std::nullopt;
}

std::optional<std::size_t> DecodeLocale(std::string_view text, std::span<wchar_t> out) {
    Output<wchar_t> output(out);
    for (;;) {
        const std::size_t cbRun = std::min(text.find('\0'), text.size());
        if (!DecodeRun(text.substr(0, cbRun), output)) {
            return std::nullopt;
        }
        if (cbRun == text.size()) {
            return output.Length();
        }
        output.Append(L"", 1);
        text.remove_prefix(cbRun + 1);
    }
}

std::optional<std::size_t> EncodeLocale(std::wstring_view text, std::span<char> out, Substitute* pSubstitute) {
    Output<char> output(out);
    std::mbstate_t state{};
    std::array<char, MB_LEN_MAX> bytes;
    for (const wchar_t ch : text) {
        const std::size_t cb = EncodeCharacter(bytes.data(), ch, state, pSubstitute);
        if (cb == kMalformed) {
            return std::nullopt;
        }
        output.Append(bytes.data(), cb);
    }
    // wcrtomb writes the bytes that return to the initial shift state, and then the terminator. The result includes
    // only the former.
    const std::size_t cb = std::wcrtomb(bytes.data(), L'\0', &state);
    if (cb == kMalformed) {
        return std::nullopt;
    }
    output.Append(bytes.data(), cb - 1);
    return output.Length();
}

}  // namespace vextk
