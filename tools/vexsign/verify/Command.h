// The command "vexsign verify". It uses OpenSSL and no toolkit.
#pragma once

#include "Options.h"

namespace vexsign::verify {

// Reads the files, prints the report, and returns the exit status: 0 only for a good signature. Throws
// std::runtime_error if a file cannot be read, and like vexposix::OutputBuffer.
int Run(const Options& options);

}  // namespace vexsign::verify
