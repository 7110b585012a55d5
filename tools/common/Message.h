// Messages to the user. They quote file names and certificates, which anybody may have made, so they are escaped.
#pragma once

#include <string>
#include <string_view>

namespace tools {

// Whether the process's locale uses UTF-8. Call setlocale first.
bool LocaleIsUtf8();

// Writes a line to standard error: "vexlog: " and the text, escaped as by AppendVisible.
void Complain(const char* pszProgram, std::string_view text);

// Writes the help or the version to standard output. Returns the exit status. A reader that has seen enough is no
// failure.
int PrintHelp(const char* pszProgram, std::string_view text);

// A message about the command line and the hint in its last line, both escaped as by AppendVisible. The message is one
// line, even if the user's argument in it has more.
std::string VisibleUsageError(std::string_view text);

}  // namespace tools
