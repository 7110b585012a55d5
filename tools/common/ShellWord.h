// File names in the commands that a program proposes to the user.
#pragma once

#include <string>

namespace tools {

// A file name as one word of sh, which no program takes for an option and which cannot harm the user's terminal. Call
// setlocale first. The name must not end in a line end.
std::string ShellWord(const std::string& strName);

}  // namespace tools
