#include "Text.h"

#include "posix/Hexadecimal.h"

namespace vexfiled {

std::string Quoted(std::string_view bytes) {
    constexpr std::size_t kMaxBytes = 200;
    std::string strText = "\"";
    for (const char ch : bytes.substr(0, kMaxBytes)) {
        if (ch >= 0x20 && ch < 0x7F && ch != '"' && ch != '\\') {
            strText += ch;
        } else {
            strText += "\\x";
            vexposix::AppendHexByte(strText, static_cast<unsigned char>(ch));
        }
    }
    return strText + (bytes.size() > kMaxBytes ? "...\"" : "\"");
}

}  // namespace vexfiled
