// The command line.
#pragma once

#include <optional>
#include <string>

#include "Filter.h"

namespace vexlog {

enum class Command { kPrint, kStats, kReport };
enum class Colour { kAuto, kAlways, kNever };

struct Options {
    Command command = Command::kPrint;
    std::string strInput = "/tmp/PILog.txt";  // "-": standard input
    std::string strOutput;                    // of kReport; "-": standard output
    Filter filter;                            // of kPrint
    bool bFollow = false;                     // of kPrint
    bool bJson = false;
    Colour colour = Colour::kAuto;
};

// Nothing when the program is to end with nExit: help or version were printed, or the usage was wrong, which was told.
std::optional<Options> ParseOptions(int argc, char** argv, int& nExit);

}  // namespace vexlog
