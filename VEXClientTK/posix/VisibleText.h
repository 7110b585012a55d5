// Makes text that anybody may have written, in a log or a certificate, safe for a terminal, for JSON and for HTML.
#pragma once

#include <string>
#include <string_view>

#include "posix/OutputBuffer.h"

namespace vexposix {

// For a terminal: what would move its cursor, change its state or reorder its text is written as \n, \r, \t, \0, \xNN
// (a byte) or \u{N} (a character); long runs of NUL as \0{N}. The result is one line. bUtf8: the reader's locale shows
// all characters; otherwise only ASCII is written as it is.
void AppendVisible(OutputBuffer& output, std::string_view text, bool bUtf8);
std::string Visible(std::string_view text, bool bUtf8);

// For the inside of a JSON string. The result is valid UTF-8; invalid bytes become U+FFFD. "<", ">" and "&" are escaped
// too, so that the text can stand in an HTML page's script element. False: something was replaced.
bool AppendJsonText(OutputBuffer& output, std::string_view text);

// The same with the quotation marks around it.
bool AppendJsonString(OutputBuffer& output, std::string_view text);

// For HTML text and attribute values. Invalid UTF-8 and control characters become U+FFFD.
void AppendHtml(OutputBuffer& output, std::string_view text);

}  // namespace vexposix
