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

// In lower case, as far as the process locale knows case.
std::wstring LowerCase(std::wstring text);

}  // namespace vextk
