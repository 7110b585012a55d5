// The options of "vexsign stamp".
#pragma once

#include <string>

#include "vexsign/TimeStamps.h"

// Most files that include this need no more of it, and the whole of CLI11 takes a compiler seconds.
namespace CLI {
class App;
}  // namespace CLI

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
