// Keeps the logs from being written over.
#pragma once

#include <stdexcept>
#include <string>

namespace vexlog {

class OutputRefused : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Both throw OutputRefused; "-" is standard input or output.

// The output is the file that is read.
void RefuseInputAsOutput(const std::string& strOutput, const std::string& strInput);

// The output is a file with records of a log in it. Throws ReadError when that cannot be found out.
void RefuseLogAsOutput(const std::string& strOutput);

}  // namespace vexlog
