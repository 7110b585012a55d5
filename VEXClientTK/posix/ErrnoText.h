// What an errno value means, in English whatever the process's language. Any thread.
#pragma once

#include <cstring>
#include <string>

namespace vexposix {

inline std::string ErrnoText(int nErrno) {
    const char* const pszText = strerrordesc_np(nErrno);
    return pszText != nullptr ? pszText : "error " + std::to_string(nErrno);
}

}  // namespace vexposix
