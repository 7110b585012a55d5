// Text in the multibyte encoding of the thread's current locale, to UTF-32 and back, in agreement with mbstowcs and
// wcstombs. Any thread; no allocation; the conversion state is the call's own.
//
// DecodeLocale and EncodeLocale convert the whole text, which may hold terminators, and return the length of the
// result. They write the part of it that fits into `out`; an empty `out` asks for the length alone. Nothing: the text
// cannot be converted.
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string_view>

namespace vextk {

// The length of the result when DecodeUtf8 or EncodeUtf8 (Utf8.h) give what libc gives, which they do many times
// faster: for ASCII in the two most common encodings, and from wide text to UTF-8 for all that has an encoding.
std::optional<std::size_t> DecodedLengthAsUtf8(std::string_view text);
std::optional<std::size_t> EncodedLengthAsUtf8(std::wstring_view text);

std::optional<std::size_t> DecodeLocale(std::string_view text, std::span<wchar_t> out);

// What stands in for characters that the locale cannot encode.
struct Substitute {
    wchar_t ch;
    bool bUsed = false;
};

// The result ends in the initial shift state. pSubstitute: null to refuse what cannot be encoded.
std::optional<std::size_t> EncodeLocale(std::wstring_view text, std::span<char> out, Substitute* pSubstitute);

}  // namespace vextk
