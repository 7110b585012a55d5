#include "common/ShellWord.h"

#include <string_view>

#include "common/Message.h"
#include "posix/VisibleText.h"

namespace tools {
namespace {

// The path as one word of sh; special bytes are octal, so that it cannot harm a terminal. The path must not end in a
// line end, which $(...) would remove.
std::string OctalWord(const std::string& strPath, std::string_view plain) {
    std::string strWord = "\"$(printf '";
    for (const char ch : strPath) {
        if (plain.find(ch) != std::string_view::npos && ch != '%') {
            strWord += ch;
        } else {
            const auto uByte = static_cast<unsigned char>(ch);
            strWord += {'\\', static_cast<char>('0' + uByte / 64), static_cast<char>('0' + uByte / 8 % 8),
                        static_cast<char>('0' + uByte % 8)};
        }
    }
    return strWord + "')\"";
}

}  // namespace

std::string ShellWord(const std::string& strName) {
    constexpr std::string_view kPlain = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~/+,:@%";
    std::string strPath = strName.starts_with('-') ? "./" + strName : strName;
    if (strPath.find_first_not_of(kPlain) == std::string::npos && !strPath.starts_with('~')) {
        return strPath;
    }
    if (vexposix::Visible(strPath, LocaleIsUtf8()) != strPath) {
        return OctalWord(strPath, kPlain);
    }
    std::string strWord = "'";
    for (const char ch : strPath) {
        strWord += ch == '\'' ? std::string("'\\''") : std::string(1, ch);
    }
    return strWord + "'";
}

}  // namespace tools
