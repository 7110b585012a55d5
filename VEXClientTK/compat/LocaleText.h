// Converts text in the multibyte encoding of the thread's current locale to UTF-32 and back, with the results of
// mbstowcs and wcstombs. Any thread; no allocation; each call has its own conversion state.
//
// DecodeLocale and EncodeLocale convert the whole text, which may hold terminators, and return the length of the
// result. They write the part of it that fits into `out`; an empty `out` only asks for the length. They return nothing
// when the text cannot be converted.
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string_view>

namespace vextk {

// The length of the result if DecodeUtf8 or EncodeUtf8 (Utf8.h), which are many times faster, give the same result as
// libc. They do for ASCII text in UTF-8 and ASCII locales, and for wide text in UTF-8 locales if each character has an
// encoding. Nothing: use DecodeLocale or EncodeLocale.
std::optional<std::size_t> DecodedLengthAsUtf8(std::string_view text);
std::optional<std::size_t> EncodedLengthAsUtf8(std::wstring_view text);

std::optional<std::size_t> DecodeLocale(std::string_view text, std::span<wchar_t> out);

// Replaces characters that the locale cannot encode.
struct Substitute {
    wchar_t ch;
    bool bUsed = false;
};

// The result ends in the initial shift state. pSubstitute: null to refuse text with characters that cannot be encoded.
std::optional<std::size_t> EncodeLocale(std::wstring_view text, std::span<char> out, Substitute* pSubstitute);

}  // namespace vextk
