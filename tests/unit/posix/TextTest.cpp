// Hexadecimal digits and plain UTF-8. The rest of Utf8.h is tested through the compatibility functions.
#include <gtest/gtest.h>

#include "posix/Hexadecimal.h"
#include "posix/Utf8.h"

namespace vexposix {
namespace {

TEST(Hexadecimal, ValuesOfAllCharacters) {
    const std::string_view digits = "0123456789ABCDEFabcdef";
    for (int n = -128; n < 128; ++n) {
        const char ch = static_cast<char>(n);
        const std::size_t nAt = digits.find(ch);
        const int nExpected = nAt == digits.npos ? -1 : static_cast<int>(nAt < 16 ? nAt : nAt - 6);
        EXPECT_EQ(HexValue(ch), nExpected) << n;
    }
}

TEST(Hexadecimal, EveryByteThereAndBack) {
    std::string strText;
    for (int n = 0; n < 256; ++n) {
        AppendHexByte(strText, static_cast<unsigned char>(n));
        EXPECT_EQ(HexByteAt(strText, strText.size() - 2), n);
    }
    EXPECT_EQ(strText.substr(0x4A * 2, 4), "4A4B");
}

TEST(Hexadecimal, TwoDigitsOrNone) {
    EXPECT_EQ(HexByteAt("a", 0), -1);
    EXPECT_EQ(HexByteAt("ab", 1), -1);
    EXPECT_EQ(HexByteAt("ab", 2), -1);
    EXPECT_EQ(HexByteAt("ab", 3), -1);
    EXPECT_EQ(HexByteAt("xab", 1), 0xAB);
    EXPECT_EQ(HexByteAt("ag", 0), -1);
    EXPECT_EQ(HexByteAt("ga", 0), -1);
    EXPECT_EQ(HexByteAt(std::string_view("abc", 1), 0), -1);
}

TEST(PlainUtf8, HasNoSurrogates) {
    for (const std::string_view text :
         {"", "ASCII", "\xC3\xA4", "\xE2\x82\xAC", "\xF0\x9F\x98\x80", "\xF4\x8F\xBF\xBF"}) {
        EXPECT_TRUE(IsPlainUtf8(text)) << text;
    }
    for (const std::string_view text :
         {"\xED\xA0\xBD\xED\xB8\x80", "\xED\xA0\x80", "\x80", "\xC0\x80", "\xC3", "\xF4\x90\x80\x80", "abc\xFF"}) {
        EXPECT_FALSE(IsPlainUtf8(text)) << text;
    }
}

}  // namespace
}  // namespace vexposix
