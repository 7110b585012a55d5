// Text that holds bytes, for interfaces that take bytes.
#pragma once

#include <span>
#include <string_view>

namespace vexsign {

// The result shares the text's memory.
inline std::span<const unsigned char> AsBytes(std::string_view text) {
    return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

}  // namespace vexsign
