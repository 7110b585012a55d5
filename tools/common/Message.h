// Messages to the user. They quote file names and certificates, which anybody may have made, so they are escaped.
#pragma once

#include <string>
#include <string_view>

namespace tools {

// Whether the process's locale uses UTF-8. Call setlocale first.
bool LocaleIsUtf8();

// Writes a line to standard error: "vexlog: " and the text, escaped as by AppendVisible.
void Complain(const char* pszProgram, std::string_view text);

// The text, escaped as by AppendVisible, except its line ends.
std::string VisibleLines(std::string_view text);

}  // namespace tools
