// What all parts of this library use: bytes, and the error that they throw.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace vextimestamp {

using Bytes = std::vector<unsigned char>;

// Why there is no time stamp, or why it is not accepted. what() is one line of UTF-8 without control characters.
struct Fault : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The cure of what only the authority can mend.
inline constexpr const char* kUseAnother = "; use another authority";

[[noreturn]] inline void ThrowNoReply(const std::string& strReason) {
    throw Fault("the answer is no time-stamp reply: " + strReason +
                "; check that the address is that of an RFC 3161 authority");
}

}  // namespace vextimestamp
