// Whole files, and the standard streams as "-".
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
// All of them or, when writing fails, none, but for what no file takes (common/OutputFile.h).
void WriteOutputs(const std::vector<Output>& outputs);

}  // namespace vexsign
