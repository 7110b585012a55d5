// Texts as wide characters, to be compared without regard to case.
#pragma once

#include <optional>
#include <string>

namespace vextk {

// Of narrow text in the encoding of the process locale; nothing when it is not.
std::optional<std::wstring> WideFromLocale(const std::string& text);

// Of UTF-8; a byte that is not stands for itself.
std::wstring WideFromUtf8(const std::string& text);

std::string Utf8FromWide(const std::wstring& text);

// As texts are compared without regard to case: the Latin, Greek, Cyrillic and Armenian letters of today's
// European languages as small ones, letter by letter, whatever the process locale. The Turkish dotted capital I has no
// small form of one letter and stays.
std::wstring FoldCase(std::wstring text);

// Unicode's white space.
bool IsBlank(wchar_t ch);

}  // namespace vextk
