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

// A client's bytes for a log line: in quotation marks, cut if they are long, all but printable ASCII as \xNN.
std::string Quoted(std::string_view bytes);

}  // namespace vexfiled
