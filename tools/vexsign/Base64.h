// Base64, RFC 4648 section 4.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace vexsign {

// In one line, padded.
std::string EncodeBase64(std::string_view bytes);

// Line breaks and blanks do not count. Nothing for a text that is no padded Base64.
std::optional<std::string> DecodeBase64(std::string_view text);

}  // namespace vexsign
