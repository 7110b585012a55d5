// Writes a file that is there whole or not at all.
#pragma once

#include <functional>
#include <string>

#include "posix/OutputBuffer.h"

namespace vexlog {

// Has fnWrite write the file; a file of that name is replaced when that is done. "-": standard output. What is no
// regular file is written to as it is (common/OutputFile.h). Throws std::system_error, and what fnWrite throws.
void WriteReportFile(const std::string& strPath, const std::function<void(vexposix::OutputBuffer&)>& fnWrite);

}  // namespace vexlog
