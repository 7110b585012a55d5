#include "Text.h"

namespace vexfiled {

std::string Quoted(std::string_view bytes) {
    constexpr std::size_t kMaxBytes = 200;
    constexpr char kDigits[] = "0123456789ABCDEF";
    std::string strText = "\"";
    for (const char ch : bytes.substr(0, kMaxBytes)) {
        if (ch >= 0x20 && ch < 0x7F && ch != '"' && ch != '\\') {
            strText += ch;
        } else {
            const auto nByte = static_cast<unsigned char>(ch);
            strText += {'\\', 'x', kDigits[nByte >> 4], kDigits[nByte & 0xF]};
        }
    }
    return strText + (bytes.size() > kMaxBytes ? "...\"" : "\"");
}

}  // namespace vexfiled
