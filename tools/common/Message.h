// What the tools tell their user, whatever is in it: names of files and texts of certificates may be anybody's.
#pragma once

#include <string>
#include <string_view>

namespace tools {

// Whether the locale of the process shows all characters. After setlocale.
bool LocaleIsUtf8();

// One line on standard error: "vexlog: ", and the text as AppendVisible writes it.
void Complain(const char* pszProgram, std::string_view text);

// The text as AppendVisible writes it, but with its line ends.
std::string VisibleLines(std::string_view text);

}  // namespace tools
