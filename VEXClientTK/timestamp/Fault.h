// What all parts of this library use: bytes, and the error that they throw.
#pragma once

#include <stdexcept>
#include <vector>

namespace vextimestamp {

using Bytes = std::vector<unsigned char>;

// Why there is no time stamp, or why it is not accepted. what() is one line of UTF-8 without control characters.
struct Fault : std::runtime_error {
    using std::runtime_error::runtime_error;
};

}  // namespace vextimestamp
