// The command line.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "Filter.h"

namespace vexlog {

enum class Command { kPrint, kStats, kReport };
enum class Colour { kAuto, kAlways, kNever };

struct Options {
    Command command = Command::kPrint;
    std::vector<std::string> inputs;   // at least one; "-": standard input
    std::string strOutput;             // of kReport; "-": standard output
    Filter filter;                     // its text only of kPrint
    std::optional<std::size_t> cLast;  // of kPrint: only so many records that pass, the last ones
    bool bFollow = false;              // of kPrint
    bool bJson = false;
    Colour colour = Colour::kAuto;
};

// Nothing: the program has to exit with nExit; the help, the version or an error message has been printed.
std::optional<Options> ParseOptions(int argc, char** argv, int& nExit);

}  // namespace vexlog
