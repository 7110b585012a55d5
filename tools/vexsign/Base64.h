// Base64, RFC 4648 section 4.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace vexsign {

// One line, with padding.
std::string EncodeBase64(std::string_view bytes);

// Ignores line breaks and blanks. Returns nothing if the text is not padded Base64.
std::optional<std::string> DecodeBase64(std::string_view text);

}  // namespace vexsign
