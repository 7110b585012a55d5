// The options of "vexsign stamp".
#pragma once

#include <string>

#include "common/CliApp.h"
#include "vexsign/TimeStamps.h"

namespace vexsign::stamp {

struct Options {
    std::string strSignature;     // "-": standard input
    std::string strOutput = "-";  // "-": standard output
    TimeStamps timeStamps;
};

CLI::App* AddCommand(CLI::App& app, Options& options);

// Throws CLI::ValidationError.
void CheckOptions(const Options& options);

}  // namespace vexsign::stamp
