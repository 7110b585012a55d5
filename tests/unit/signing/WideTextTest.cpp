// Texts compared without regard to case.
#include "signing/WideText.h"

#include <gtest/gtest.h>

#include <wctype.h>

#include <clocale>

namespace vextk {
namespace {

struct Range {
    wchar_t chFirst;
    wchar_t chLast;
};

// Compares with libc in the locale C.UTF-8, except letters without a single small form and the final sigma.
TEST(WideText, LettersFoldAsInCUtf8) {
    const locale_t locale = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    ASSERT_NE(locale, nullptr);
    constexpr Range kRanges[] = {{0x00, 0x17F},    {0x1CD, 0x1EF},   {0x1F8, 0x21F},  {0x222, 0x233},
                                 {0x386, 0x3CE},   {0x400, 0x52F},   {0x531, 0x586},  {0x1E00, 0x1E95},
                                 {0x1EA0, 0x1EFF}, {0x4E00, 0x4EFF}, {0xFF00, 0xFF5E}};
    constexpr wchar_t kDottedCapitalI = 0x130;
    constexpr wchar_t kFinalSigma = 0x3C2;
    constexpr wchar_t kSigma = 0x3C3;
    for (const Range& range : kRanges) {
        for (wchar_t ch = range.chFirst; ch <= range.chLast; ++ch) {
            const auto chSmall = static_cast<wchar_t>(towlower_l(static_cast<std::wint_t>(ch), locale));
            const wchar_t chExpected = ch == kDottedCapitalI ? ch : ch == kFinalSigma ? kSigma : chSmall;
            EXPECT_EQ(FoldCase(std::wstring(1, ch)), std::wstring(1, chExpected)) << std::hex << static_cast<int>(ch);
        }
    }
    freelocale(locale);
}

TEST(WideText, ReadsUtf16) {
    const auto bytes = [](const std::u16string& text) {
        std::string strBytes;
        for (const char16_t ch : text) {
            strBytes += static_cast<char>(ch >> 8);
            strBytes += static_cast<char>(ch & 0xFF);
        }
        return strBytes;
    };
    EXPECT_EQ(Utf8FromUtf16(""), "");
    EXPECT_EQ(Utf8FromUtf16(bytes(u"a \u00D6\u7B7E\uFF21\U0001F98A\U0010FFFF")),
              "a \xC3\x96\xE7\xAD\xBE\xEF\xBC\xA1\xF0\x9F\xA6\x8A\xF4\x8F\xBF\xBF");
    for (const std::string& strMalformed :
         {std::string("a"), bytes(u"ab") + "c", bytes({0xD83E}), bytes({0xDD8A}), bytes({0xDD8A, 0xD83E}),
          bytes({0xD83E, u'a'}), bytes({u'a', 0xDD8A}), bytes({0xD83E, 0xDD8A, 0xDD8A}), bytes({u'a', 0})}) {
        EXPECT_FALSE(Utf8FromUtf16(strMalformed));
    }
}

TEST(WideText, OtherCharactersAreUnchanged) {
    const std::wstring strOthers = L"\x17F\x2126\x212A\x3C9\x7B7E\x1F98A\x7FFFFFFF";
    EXPECT_EQ(FoldCase(strOthers), strOthers);
}

TEST(WideText, OfALocaleIsReadWholeOrNotAtAll) {
    EXPECT_EQ(WideFromLocale(""), L"");
    EXPECT_EQ(WideFromLocale("text"), L"text");
    EXPECT_EQ(WideFromLocale(std::string("a\0b", 3)), std::nullopt);
    EXPECT_EQ(WideFromLocale("a\xFF"), std::nullopt);
}

TEST(WideText, BlanksAreThoseOfUnicode) {
    for (const wchar_t ch :
         {0x09, 0x0D, 0x20, 0x85, 0xA0, 0x1680, 0x2000, 0x200A, 0x2028, 0x2029, 0x202F, 0x205F, 0x3000}) {
        EXPECT_TRUE(IsBlank(ch)) << std::hex << static_cast<int>(ch);
    }
    for (const wchar_t ch : {0x08, 0x0E, 0x1F, 0x21, 0x84, 0xA1, 0x1FFF, 0x200B, 0x2027, 0x2030, 0x3001}) {
        EXPECT_FALSE(IsBlank(ch)) << std::hex << static_cast<int>(ch);
    }
}

}  // namespace
}  // namespace vextk
