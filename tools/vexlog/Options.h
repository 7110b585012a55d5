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

// Nothing: the program has to exit with nExit; the help, the version or an error message has been printed.
std::optional<Options> ParseOptions(int argc, char** argv, int& nExit);

}  // namespace vexlog
