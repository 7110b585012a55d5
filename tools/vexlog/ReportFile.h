// Writes a file that appears only when it is complete.
#pragma once

#include <functional>
#include <string>

#include "posix/OutputBuffer.h"

namespace vexlog {

// Calls fnWrite to write the file, then replaces an old file of that name. "-" is standard output. Devices and pipes
// are written to directly (common/OutputFile.h). Throws std::system_error, and what fnWrite throws.
void WriteReportFile(const std::string& strPath, const std::function<void(vexposix::OutputBuffer&)>& fnWrite);

}  // namespace vexlog
