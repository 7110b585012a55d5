#pragma once

#include <string>
#include <system_error>

namespace tools {

// nError is a value of errno. The exception's text says what it happened to, such as a path, and why.
[[noreturn]] inline void ThrowSystemError(int nError, const std::string& strWhat) {
    throw std::system_error(nError, std::generic_category(), strWhat);
}

}  // namespace tools
