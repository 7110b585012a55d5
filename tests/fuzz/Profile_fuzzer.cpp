// The profile parser: names match in any case. CR LF line ends, a byte order mark and lines added before the first or
// after the last section change nothing.
//
// The first line of the input is the section and the second is the key. The rest is the file.
#include <algorithm>
#include <cstdint>
#include <string>

#include "Require.h"
#include "compat/ProfileText.h"

namespace {

std::string_view TakeLine(std::string_view& text) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    return line;
}

std::string SwapCases(std::string_view text) {
    std::string strSwapped(text);
    for (char& ch : strSwapped) {
        if ((ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z')) {
            ch = static_cast<char>(ch ^ 0x20);
        }
    }
    return strSwapped;
}

std::string WithCrLf(std::string_view text) {
    std::string strText;
    for (const char ch : text) {
        strText += ch == '\n' ? "\r\n" : std::string(1, ch);
    }
    return strText;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pbData, std::size_t cbData) {
    std::string_view text(reinterpret_cast<const char*>(pbData), cbData);
    const std::string_view strSection = TakeLine(text);
    const std::string_view strKey = TakeLine(text);
    const auto uValue = vextk::FindProfileInteger(text, strSection, strKey);

    const std::string strText(text);
    Require(vextk::FindProfileInteger(text, SwapCases(strSection), SwapCases(strKey)) == uValue);
    Require(vextk::FindProfileInteger(SwapCases(text), strSection, strKey) == uValue);
    Require(vextk::FindProfileInteger(WithCrLf(text), strSection, strKey) == uValue);
    constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
    if (!text.starts_with(kByteOrderMark)) {
        Require(vextk::FindProfileInteger(std::string(kByteOrderMark) + strText, strSection, strKey) == uValue);
        Require(vextk::FindProfileInteger("; comment\n\n" + strText, strSection, strKey) == uValue);
    }
    // A section with the key, alone or added at the end, gives the expected value.
    const bool bUsableNames = strSection.find_first_of("]\r") == strSection.npos &&
                              strKey.find_first_of("=[;# \t\r\v\f") == strKey.npos &&
                              strSection.find_first_of(" \t\v\f") == strSection.npos;
    if (bUsableNames) {
        const std::string strEntry = "\n[" + std::string(strSection) + "]\n" + std::string(strKey) + "=4711\n";
        Require(vextk::FindProfileInteger(strEntry, strSection, strKey) == 4711U);
        Require(!uValue || vextk::FindProfileInteger(strText + strEntry, strSection, strKey) == uValue);
    }
    return 0;
}
