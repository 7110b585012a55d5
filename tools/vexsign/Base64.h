// Base64, RFC 4648 section 4.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace vexsign {

// Encodes bytes that arrive in pieces into one line, with padding.
class Base64Encoder {
public:
    // Appends to the text what the bytes so far allow.
    void Append(std::string_view bytes, std::string& text);
    // Appends the rest. Then the encoder is as new.
    void Finish(std::string& text);

private:
    std::string m_strRest;  // the bytes of a group that is not full
};

std::string EncodeBase64(std::string_view bytes);

// Ignores line breaks and blanks. Returns nothing if the text is not padded Base64.
std::optional<std::string> DecodeBase64(std::string_view text);

}  // namespace vexsign
