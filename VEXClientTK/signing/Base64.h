// Base64 (RFC 4648 section 4) without line breaks.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vextk {

// Throws VCTK_E_TOO_LARGE when the result's length does not fit 32 bits.
std::string EncodeBase64(const unsigned char* pbData, size_t cbData);

// Strict: with padding, no blank or line break, unused bits zero. Nothing: the text is anything else. Throws
// VCTK_E_TOO_LARGE when the length does not fit 32 bits.
std::optional<std::vector<unsigned char>> DecodeBase64(std::string_view text);

}  // namespace vextk
