#include "compat/ProfileText.h"

#include <algorithm>

namespace vextk {
namespace {

std::string_view Trim(std::string_view text) {
    constexpr std::string_view kBlanks = " \t\r\v\f";
    const size_t nFirst = text.find_first_not_of(kBlanks);
    return nFirst == text.npos ? std::string_view() : text.substr(nFirst, text.find_last_not_of(kBlanks) - nFirst + 1);
}

// Changes only ASCII letters, because the file's encoding is unknown.
char ToLower(char ch) {
    return ch >= 'A' && ch <= 'Z' ? static_cast<char>(ch - 'A' + 'a') : ch;
}

bool SameName(std::string_view a, std::string_view b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) { return ToLower(x) == ToLower(y); });
}

std::string_view TakeLine(std::string_view& text) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    return Trim(line);
}

std::string_view Unquote(std::string_view value) {
    const bool bQuoted =
        value.size() >= 2 && (value.front() == '"' || value.front() == '\'') && value.front() == value.back();
    return bQuoted ? Trim(value.substr(1, value.size() - 2)) : value;
}

UINT ToInteger(std::string_view value) {
    const bool bNegative = value.starts_with('-');
    if (bNegative || value.starts_with('+')) {
        value.remove_prefix(1);
    }
    UINT uValue = 0;
    for (const char ch : value) {
        if (ch < '0' || ch > '9') {
            break;
        }
        uValue = uValue * 10 + static_cast<UINT>(ch - '0');
    }
    return bNegative ? 0 - uValue : uValue;
}

}  // namespace

std::optional<UINT> FindProfileInteger(std::string_view text, std::string_view strSection,
                                       std::string_view strKey) noexcept {
    constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
    if (text.starts_with(kByteOrderMark)) {
        text.remove_prefix(kByteOrderMark.size());
    }
    bool bInSection = false;
    while (!text.empty()) {
        const std::string_view line = TakeLine(text);
        if (line.starts_with(';') || line.starts_with('#')) {
            continue;
        }
        if (line.starts_with('[')) {
            const size_t nClose = line.find(']');
            if (nClose == line.npos) {
                continue;
            }
            if (bInSection) {
                return std::nullopt;
            }
            bInSection = SameName(Trim(line.substr(1, nClose - 1)), strSection);
            continue;
        }
        const size_t nEquals = line.find('=');
        if (bInSection && nEquals != line.npos && SameName(Trim(line.substr(0, nEquals)), strKey)) {
            const std::string_view value = Unquote(Trim(line.substr(nEquals + 1)));
            return value.empty() ? std::nullopt : std::optional(ToInteger(value));
        }
    }
    return std::nullopt;
}

}  // namespace vextk
