// Writes whole files; "-" is standard output.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace vexsign {

struct Output {
    std::string strName;
    std::vector<std::string_view> pieces;
    bool bAsBase64 = false;  // one line of Base64 instead of the bytes
};

// Writes all outputs. On failure it writes none, except to devices and pipes (common/OutputFile.h). Throws
// std::system_error with the name and the reason.
void WriteOutputs(const std::vector<Output>& outputs);

}  // namespace vexsign
