#include "posix/VisibleText.h"

#include <algorithm>
#include <array>
#include <cstdint>

#include "posix/Hexadecimal.h"
#include "posix/Utf8Character.h"

namespace vexposix {
namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

struct Range {
    std::uint32_t chFirst;
    std::uint32_t chLast;
};

// Control characters, and invisible characters that change how others look.
constexpr Range kInvisible[] = {
    {0x00, 0x1F},     {0x7F, 0x9F},     {0xAD, 0xAD},     {0x061C, 0x061C}, {0x180E, 0x180E},   {0x200B, 0x200F},
    {0x2028, 0x202E}, {0x2060, 0x206F}, {0xFEFF, 0xFEFF}, {0xFFF9, 0xFFFB}, {0xE0000, 0xE0FFF},
};

bool IsVisible(std::uint32_t ch) {
    return std::none_of(std::begin(kInvisible), std::end(kInvisible),
                        [ch](const Range& range) { return ch >= range.chFirst && ch <= range.chLast; });
}

// The ASCII characters that are written as they are, for each kind of output.
using PlainTable = std::array<bool, 256>;

constexpr PlainTable MakePlain(std::string_view special) {
    PlainTable table = {};
    for (std::size_t ch = ' '; ch <= '~'; ++ch) {
        table[ch] = special.find(static_cast<char>(ch)) == std::string_view::npos;
    }
    return table;
}

constexpr PlainTable kPlainVisible = MakePlain("");
constexpr PlainTable kPlainJson = MakePlain("\"\\<>&");
constexpr PlainTable kPlainHtml = MakePlain("\"'<>&");

// Appends the plain characters at the text's beginning and removes them from the text.
void TakePlain(OutputBuffer& output, std::string_view& text, const PlainTable& plain) {
    const auto end =
        std::find_if_not(text.begin(), text.end(), [&](char ch) { return plain[static_cast<unsigned char>(ch)]; });
    const auto n = static_cast<std::size_t>(end - text.begin());
    output.Append(text.substr(0, n));
    text.remove_prefix(n);
}

// nValue: a byte or a character of Unicode.
void AppendHex(OutputBuffer& output, std::uint32_t nValue, int cLeast) {
    int cDigits = 1;
    while ((nValue >> (4 * cDigits)) != 0) {
        ++cDigits;
    }
    for (int n = std::max(cDigits, cLeast) - 1; n >= 0; --n) {
        output.Append(kLowerHexDigits[(nValue >> (4 * n)) & 0xF]);
    }
}

// Escapes one byte, or a run of NULs.
void AppendEscapedByte(OutputBuffer& output, std::string_view& text) {
    constexpr std::size_t kLongRun = 4;
    const char ch = text.front();
    if (ch == '\0') {
        const std::size_t n = std::min(text.find_first_not_of('\0'), text.size());
        if (n >= kLongRun) {
            output.Append("\\0{");
            output.AppendNumber(n);
            output.Append('}');
            text.remove_prefix(n);
            return;
        }
        output.Append("\\0");
    } else if (ch == '\n' || ch == '\r' || ch == '\t') {
        output.Append('\\');
        output.Append(ch == '\n' ? 'n' : ch == '\r' ? 'r' : 't');
    } else {
        output.Append("\\x");
        AppendHex(output, static_cast<unsigned char>(ch), 2);
    }
    text.remove_prefix(1);
}

// A character beyond U+FFFF is two escapes, one for each half of its surrogate pair.
void AppendJsonEscape(OutputBuffer& output, std::uint32_t ch) {
    if (ch > 0xFFFF) {
        output.Append("\\u");
        AppendHex(output, 0xD800 + ((ch - 0x10000) >> 10U), 4);
        ch = 0xDC00 + (ch & 0x3FFU);
    }
    output.Append("\\u");
    AppendHex(output, ch, 4);
}

}  // namespace

void AppendVisible(OutputBuffer& output, std::string_view text, bool bUtf8) {
    for (;;) {
        TakePlain(output, text, kPlainVisible);
        if (text.empty()) {
            return;
        }
        const Utf8Character character = FirstCharacter(text);
        if (character.cb <= 1 || !character.IsUnicode()) {
            AppendEscapedByte(output, text);
            continue;
        }
        if (bUtf8 && IsVisible(character.ch)) {
            output.Append(text.substr(0, character.cb));
        } else {
            output.Append("\\u{");
            AppendHex(output, character.ch, 1);
            output.Append('}');
        }
        text.remove_prefix(character.cb);
    }
}

std::string Visible(std::string_view text, bool bUtf8) {
    constexpr int kNowhere = -1;
    OutputBuffer output(kNowhere);
    AppendVisible(output, text, bUtf8);
    return std::string(output.Pending());
}

bool AppendJsonText(OutputBuffer& output, std::string_view text) {
    bool bWhole = true;
    for (;;) {
        TakePlain(output, text, kPlainJson);
        if (text.empty()) {
            return bWhole;
        }
        const Utf8Character character = FirstCharacter(text);
        if (!character.IsUnicode()) {
            output.Append(kReplacement);
            text.remove_prefix(1);
            bWhole = false;
            continue;
        }
        const bool bMark = character.ch == '"' || character.ch == '\\';
        if (bMark) {
            output.Append('\\');
            output.Append(text.front());
        } else if (character.cb == 1 || !IsVisible(character.ch)) {
            AppendJsonEscape(output, character.ch);
        } else {
            output.Append(text.substr(0, character.cb));
        }
        text.remove_prefix(character.cb);
    }
}

bool AppendJsonString(OutputBuffer& output, std::string_view text) {
    output.Append('"');
    const bool bWhole = AppendJsonText(output, text);
    output.Append('"');
    return bWhole;
}

void AppendHtml(OutputBuffer& output, std::string_view text) {
    for (;;) {
        TakePlain(output, text, kPlainHtml);
        if (text.empty()) {
            return;
        }
        const Utf8Character character = FirstCharacter(text);
        if (character.cb == 1 && text.front() >= ' ' && text.front() <= '~') {
            output.Append("&#");
            output.AppendNumber(character.ch);
            output.Append(';');
        } else if (character.IsUnicode() && IsVisible(character.ch)) {
            output.Append(text.substr(0, character.cb));
        } else {
            output.Append(kReplacement);
        }
        text.remove_prefix(std::max<std::size_t>(character.IsUnicode() ? character.cb : 1, 1));
    }
}

}  // namespace vexposix
