// Keeps vexlog from overwriting logs.
#pragma once

#include <stdexcept>
#include <string>

namespace vexlog {

class OutputRefused : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Both throw OutputRefused; "-" is standard input or output.

// Refuses an output that is the file to read.
void RefuseInputAsOutput(const std::string& strOutput, const std::string& strInput);

// Refuses an output file that holds records of a log, also a compressed one. Throws ReadError if it cannot be read.
void RefuseLogAsOutput(const std::string& strOutput);

}  // namespace vexlog
