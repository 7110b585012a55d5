// UTF-8 to UTF-32 and back. A text that is malformed anywhere is refused. Pure functions without allocation; any
// thread.
//
// One addition for Java's modified UTF-8: a surrogate pair that is encoded as two three-byte sequences decodes to its
// one character. A lone surrogate and an encoded zero (C0 80) are malformed, as in plain UTF-8.
#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

namespace vexposix {

// The number of characters that the text decodes to. Nothing: it is malformed.
std::optional<std::size_t> DecodedLength(std::string_view text) noexcept;

// Whether it is plain UTF-8, without Java's surrogate pairs.
bool IsPlainUtf8(std::string_view text) noexcept;

// Writes the characters of a well-formed text. cch: its DecodedLength.
void DecodeUtf8(std::string_view text, wchar_t* pchOut, std::size_t cch) noexcept;

// The number of bytes that the text encodes to. Nothing: it holds a surrogate or a value above U+10FFFF.
std::optional<std::size_t> EncodedLength(std::wstring_view text) noexcept;

// Writes the bytes of a text that can be encoded. cb: its EncodedLength.
void EncodeUtf8(std::wstring_view text, char* pchOut, std::size_t cb) noexcept;

}  // namespace vexposix
