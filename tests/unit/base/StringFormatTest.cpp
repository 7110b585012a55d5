// The printf of the counted strings.
#include <gtest/gtest.h>

#include <cstdarg>
#include <string>

#include "ForkWhile.h"
#include "Scale.h"
#include "VEXCstring.h"

namespace {

TEST(WideFormat, FollowsWprintf) {
    CString str(L"old");
    str.Format(L"%d|%ls|%s|%c|%5.2f", -3, L"wide", "narrow", L'x', 1.5);
    EXPECT_STREQ(str.GetString(), L"-3|wide|narrow|x| 1.50");
    EXPECT_EQ(str.GetAllocLength(), str.GetLength());
    str.Format(L"<%ls>", str.Left(2).GetString());
    EXPECT_STREQ(str.GetString(), L"<-3>");
    str.Format(L"%ls%ls", str.GetString(), str.GetString());
    EXPECT_STREQ(str.GetString(), L"<-3><-3>");
    str.Format(L"a%lcb", 0);
    EXPECT_EQ(str.GetLength(), 3);
    const std::wstring longText(100000, L'z');
    str.Format(L"%ls", longText.c_str());
    EXPECT_EQ(str.GetLength(), 100000);
    str.Format(L"");
    EXPECT_TRUE(str.IsEmpty());
}

TEST(WideFormat, AFailureEmptiesTheString) {
    CString str(L"old");
    str.Format(nullptr);
    EXPECT_TRUE(str.IsEmpty());
    str = L"old";
    str.Format(L"%s", "\xff\xfe");  // not a narrow text
    EXPECT_TRUE(str.IsEmpty());
}

// Wide printf takes locks inside libc.
TEST(WideFormat, AForkedChildFormats) {
    ForkWhile(2, Scaled(60), [] {
        CString str;
        str.Format(L"%d %ls", 7, L"wide");
    });
}

TEST(NarrowFormat, FollowsPrintf) {
    CStringA str("old");
    str.Format("%d|%s|%ls|%c|%5.2f", -3, "narrow", L"wide", 'x', 1.5);
    EXPECT_STREQ(str.GetString(), "-3|narrow|wide|x| 1.50");
    EXPECT_EQ(str.GetAllocLength(), str.GetLength());
    str.Format("<%s%s>", str.Left(2).GetString(), str.GetString());
    EXPECT_STREQ(str.GetString(), "<-3-3|narrow|wide|x| 1.50>");
    const std::string longText(100000, 'z');
    str.Format("%s", longText.c_str());
    EXPECT_EQ(str.GetLength(), 100000);
    str.Format("%s", "");
    EXPECT_TRUE(str.IsEmpty());
}

void FormatWith(CStringA& str, const char* pszFormat, ...) {
    va_list args;
    va_start(args, pszFormat);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    str.FormatV(pszFormat, args);
#pragma GCC diagnostic pop
    va_end(args);
}

TEST(NarrowFormat, AFailureEmptiesTheString) {
    CStringA str("old");
    FormatWith(str, nullptr);
    EXPECT_TRUE(str.IsEmpty());
    str = "old";
    const wchar_t szInvalid[] = {static_cast<wchar_t>(0x110000), 0};
    str.Format("%ls", szInvalid);
    EXPECT_TRUE(str.IsEmpty());
}

}  // namespace
