// Text in the multibyte encoding of the thread's current locale, to UTF-32 and back, in agreement with mbstowcs and
// wcstombs. Any thread; no allocation; the conversion state is the call's own.
//
// Both functions convert the whole text, which may hold terminators, and return the length of the result. They write
// the part of it that fits into `out`; an empty `out` asks for the length alone. Nothing: the text cannot be converted.
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string_view>

namespace vextk {

std::optional<std::size_t> DecodeLocale(std::string_view text, std::span<wchar_t> out);

// What stands in for characters that the locale cannot encode.
struct Substitute {
    wchar_t ch;
    bool bUsed = false;
};

// The result ends in the initial shift state. pSubstitute: null to refuse what cannot be encoded.
std::optional<std::size_t> EncodeLocale(std::wstring_view text, std::span<char> out, Substitute* pSubstitute);

}  // namespace vextk
