// Reads and writes whole files; "-" is standard input or output.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace vexsign {

// Both throw std::runtime_error with the name and the reason.
std::string ReadWhole(const std::string& strName);

struct Output {
    std::string strName;
    std::string_view bytes;
};
// Writes all outputs. On failure it writes none, except to devices and pipes (common/OutputFile.h).
void WriteOutputs(const std::vector<Output>& outputs);

}  // namespace vexsign
