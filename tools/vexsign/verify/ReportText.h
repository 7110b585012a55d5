// Writes a report for people, or as JSON for programs.
#pragma once

#include "Report.h"
#include "posix/OutputBuffer.h"

namespace vexsign::verify {

// Names and texts are escaped as by vexposix::AppendVisible.
void PrintText(const Report& report, bool bUtf8, vexposix::OutputBuffer& output);

// One line, one JSON object; docs/verifying.md describes it.
void PrintJson(const Report& report, vexposix::OutputBuffer& output);

}  // namespace vexsign::verify
