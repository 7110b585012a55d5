// Whole files, and the standard streams as "-".
#pragma once

#include <string>
#include <string_view>

namespace vexsign {

// Throw std::runtime_error with the name and the reason.
std::string ReadWhole(const std::string& strName);
// A new file has the rights that the umask leaves; one that is there is overwritten.
void WriteWhole(const std::string& strName, std::string_view bytes);

}  // namespace vexsign
