// Texts as wide characters, for comparisons that ignore case.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace vextk {

// Converts text from the encoding of the process locale; nothing if the text is invalid in it.
std::optional<std::wstring> WideFromLocale(const std::string& text);

// Converts text from UTF-8. A byte that is not valid UTF-8 becomes the character of the same number.
std::wstring WideFromUtf8(const std::string& text);

std::string Utf8FromWide(const std::wstring& text);

// Converts text from UTF-16 with the high byte first. Nothing if it is malformed or contains a zero.
std::optional<std::string> Utf8FromUtf16(std::string_view bytes);

// Replaces capitals by small letters, one by one, whatever the process locale: the Latin, Greek, Cyrillic and Armenian
// letters of today's European languages. The Turkish dotted capital I stays, because it has no small form of one
// letter.
std::wstring FoldCase(std::wstring text);

// Whether Unicode counts the character as white space.
bool IsBlank(wchar_t ch);

}  // namespace vextk
