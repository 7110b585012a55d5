// Texts for log lines.
#pragma once

#include <sstream>
#include <string>
#include <string_view>

namespace vexfiled {

// The parts, one after the other.
template <typename... Parts>
std::string Text(const Parts&... parts) {
    std::ostringstream stream;
    (stream << ... << parts);
    return stream.str();
}

// What a client sent, for a log line: in quotation marks, everything but printable ASCII as \xNN, and cut when long.
std::string Quoted(std::string_view bytes);

}  // namespace vexfiled
