#include "compat/LocaleText.h"

#include <wchar.h>

#include <algorithm>
#include <array>
#include <climits>

namespace vextk {
namespace {

constexpr auto kConversionFailed = static_cast<std::size_t>(-1);

// libc converts into a buffer of this size piece by piece, also when only the length is asked for: measuring by libc
// (a null output) would not carry the state from one piece to the next.
constexpr std::size_t kPiece = 512;
static_assert(kPiece >= MB_LEN_MAX + 1);

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

// One character, or its substitute.
std::size_t EncodeCharacter(char* pOut, wchar_t ch, std::mbstate_t& state, Substitute& substitute) {
    const std::mbstate_t before = state;
    const std::size_t cb = wcrtomb(pOut, ch, &state);
    if (cb != kConversionFailed) {
        return cb;
    }
    state = before;
    substitute.bUsed = true;
    return wcrtomb(pOut, substitute.ch, &state);
}

}  // namespace

std::optional<std::size_t> DecodeLocale(std::string_view text, std::span<wchar_t> out) {
    Output<wchar_t> output(out);
    std::mbstate_t state{};
    std::array<wchar_t, kPiece> piece;
    // From terminator to terminator, where libc's functions stop.
    for (;;) {
        const std::size_t cbRun = std::min(text.find('\0'), text.size());
        const char* pNext = text.data();
        const char* const pEnd = pNext + cbRun;
        while (pNext != pEnd) {
            const std::size_t cch =
                mbsnrtowcs(piece.data(), &pNext, static_cast<std::size_t>(pEnd - pNext), piece.size(), &state);
            if (cch == kConversionFailed) {
                return std::nullopt;
            }
            output.Append(piece.data(), cch);
        }
        // A terminator brings out a character that the state still holds, and fails when a character is cut off.
        const char* pTerminator = "";
        const std::size_t cch = mbsnrtowcs(piece.data(), &pTerminator, 1, piece.size(), &state);
        if (cch == kConversionFailed) {
            return std::nullopt;
        }
        output.Append(piece.data(), cch);
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
    std::array<char, kPiece> piece;
    for (;;) {
        const std::size_t cchRun = std::min(text.find(L'\0'), text.size());
        const wchar_t* pNext = text.data();
        const wchar_t* const pEnd = pNext + cchRun;
        while (pNext != pEnd) {
            const std::size_t cb =
                pSubstitute != nullptr
                    ? EncodeCharacter(piece.data(), *pNext++, state, *pSubstitute)
                    : wcsnrtombs(piece.data(), &pNext, static_cast<std::size_t>(pEnd - pNext), piece.size(), &state);
            if (cb == kConversionFailed) {
                return std::nullopt;
            }
            output.Append(piece.data(), cb);
        }
        // A terminator is preceded by the way back to the initial state, which the end of the text needs as well.
        const std::size_t cb = wcrtomb(piece.data(), L'\0', &state);
        if (cb == kConversionFailed) {
            return std::nullopt;
        }
        if (cchRun == text.size()) {
            output.Append(piece.data(), cb - 1);
            return output.Length();
        }
        output.Append(piece.data(), cb);
        text.remove_prefix(cchRun + 1);
    }
}

}  // namespace vextk
