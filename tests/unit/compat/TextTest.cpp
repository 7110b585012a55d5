// Lengths, room, terminators and errors. The rules are the same for both encodings and both directions.
#include <gtest/gtest.h>
#include <locale.h>

#include <algorithm>
#include <climits>
#include <cstring>

#include "Conversion.h"
#include "ScopedLocale.h"

namespace {

const char* const kNarrow = "ab\xC3\xA9\xF0\x9F\x98\x80";  // 8 bytes, 4 characters
const wchar_t* const kWide = L"ab\u00E9\U0001F600";

class TextRules : public testing::TestWithParam<UINT> {
protected:
    const ScopedLocale m_locale{"C.UTF-8"};
};

struct Call {
    int nLength;  // of the source
    int nRoom;
    int nResult;
    DWORD dwError;  // when the result is 0
    int nWritten;
};

template <typename Direction>
void CheckCalls(UINT uCodePage, const typename Direction::From* pszSource, const typename Direction::To* pszExpected,
                std::initializer_list<Call> calls) {
    using To = typename Direction::To;
    constexpr To kUnwritten = '#';
    const std::basic_string<To> strExpected(pszExpected, std::char_traits<To>::length(pszExpected) + 1);
    for (const Call& call : calls) {
        SCOPED_TRACE(testing::Message() << "length " << call.nLength << " room " << call.nRoom);
        CloseHandle(nullptr);  // another last error
        std::basic_string<To> strOut(20, kUnwritten);
        EXPECT_EQ(Direction::Convert(uCodePage, pszSource, call.nLength, strOut.data(), call.nRoom), call.nResult);
        EXPECT_EQ(GetLastError(), call.nResult != 0 ? ERROR_INVALID_HANDLE : call.dwError);
        const auto nWritten = static_cast<size_t>(call.nWritten);
        EXPECT_EQ(strOut, strExpected.substr(0, nWritten) + std::basic_string<To>(20 - nWritten, kUnwritten));
    }
}

TEST_P(TextRules, NarrowToWideLengths) {
    CheckCalls<
        NarrowToWide>(GetParam(), kNarrow, kWide,
                      {
                          {-1, 20, 5, 0, 5},                         // the terminator is part of the source
                          {-1, 5, 5, 0, 5},       {-1, 4, 4, 0, 4},  // room for all but the terminator
                          {-1, 3, 0, 122, 0},     {-1, 1, 0, 122, 0},      {-1, 0, 5, 0, 0},  // asks for the length
                          {8, 20, 4, 0, 4},                                                   // no terminator is added
                          {8, 4, 4, 0, 4},        {8, 3, 0, 122, 0},       {8, 0, 4, 0, 0},
                          {9, 20, 5, 0, 5},                             // the explicit length includes the terminator
                          {9, 4, 0, 122, 0},                            // which needs room
                          {2, 2, 2, 0, 2},        {7, 20, 0, 1113, 0},  // a character cut off
                          {3, 20, 0, 1113, 0},    {3, 0, 0, 1113, 0},      {0, 20, 0, 87, 0},
                          {-2, 20, 0, 87, 0},     {INT_MIN, 20, 0, 87, 0}, {-1, -1, 0, 87, 0},
                          {8, INT_MIN, 0, 87, 0},
                      });
}

TEST_P(TextRules, WideToNarrowLengths) {
    CheckCalls<WideToNarrow>(GetParam(), kWide, kNarrow,
                             {
                                 {-1, 20, 9, 0, 9},
                                 {-1, 9, 9, 0, 9},
                                 {-1, 8, 8, 0, 8},
                                 {-1, 7, 0, 122, 0},
                                 {-1, 0, 9, 0, 0},
                                 {4, 20, 8, 0, 8},
                                 {4, 8, 8, 0, 8},
                                 {4, 7, 0, 122, 0},
                                 {4, 0, 8, 0, 0},
                                 {5, 20, 9, 0, 9},
                                 {5, 8, 0, 122, 0},
                                 {3, 4, 4, 0, 4},
                                 {0, 20, 0, 87, 0},
                                 {-2, 20, 0, 87, 0},
                                 {INT_MIN, 20, 0, 87, 0},
                                 {-1, -1, 0, 87, 0},
                                 {4, INT_MIN, 0, 87, 0},
                             });
}

TEST_P(TextRules, TheEmptyTextIsItsTerminator) {
    CheckCalls<NarrowToWide>(GetParam(), "", L"", {{-1, 20, 1, 0, 1}, {-1, 1, 1, 0, 1}, {-1, 0, 1, 0, 0}});
    CheckCalls<WideToNarrow>(GetParam(), L"", "", {{-1, 20, 1, 0, 1}, {-1, 1, 1, 0, 1}, {-1, 0, 1, 0, 0}});
}

TEST_P(TextRules, ANullOutputAsksForTheLengthWhateverItsSize) {
    for (const int nRoom : {0, 1, 100, INT_MAX, -1, INT_MIN}) {
        EXPECT_EQ(NarrowToWide::Convert(GetParam(), kNarrow, -1, nullptr, nRoom), 5) << nRoom;
        EXPECT_EQ(WideToNarrow::Convert(GetParam(), kWide, 4, nullptr, nRoom), 8) << nRoom;
    }
}

TEST_P(TextRules, InvalidSourcesAreRefused) {
    wchar_t szWide[8] = {};
    char szNarrow[8] = {};
    for (const int nLength : {-1, 1}) {
        CloseHandle(nullptr);
        EXPECT_EQ(NarrowToWide::Convert(GetParam(), nullptr, nLength, szWide, 8), 0);
        EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
        CloseHandle(nullptr);
        EXPECT_EQ(WideToNarrow::Convert(GetParam(), nullptr, nLength, szNarrow, 8), 0);
        EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    }
    wcscpy_s(szWide, 8, L"ab");
    CloseHandle(nullptr);
    EXPECT_EQ(WideToNarrow::Convert(GetParam(), szWide, -1, reinterpret_cast<char*>(szWide), 8), 0) << "in place";
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_STREQ(szWide, L"ab");
}

TEST_P(TextRules, TerminatorsWithinAnExplicitLength) {
    using namespace std::string_view_literals;
    EXPECT_EQ(ConvertChecked<NarrowToWide>(GetParam(), "\0a\0\0\xC3\xA9\0"sv), L"\0a\0\0\u00E9\0"sv);
    EXPECT_EQ(ConvertChecked<WideToNarrow>(GetParam(), L"\0a\0\0\u00E9\0"sv), "\0a\0\0\xC3\xA9\0"sv);
}

TEST_P(TextRules, SurrogatesAreNoCharacters) {
    for (const long nValue : {0xD800L, 0xDBFFL, 0xDC00L, 0xDFFFL, long{WCHAR_MIN}, -1L}) {
        const std::wstring strText = {L'a', static_cast<wchar_t>(nValue), L'b'};
        EXPECT_EQ(ConvertChecked<WideToNarrow>(GetParam(), strText), std::nullopt) << nValue;
        EXPECT_EQ(WideToNarrow::Convert(GetParam(), strText.c_str(), -1, nullptr, 0), 0);
    }
    const std::wstring strPair = {static_cast<wchar_t>(0xD83D), static_cast<wchar_t>(0xDE00)};
    EXPECT_EQ(ConvertChecked<WideToNarrow>(GetParam(), strPair), std::nullopt) << "wide text is UTF-32, not UTF-16";
}

// libc's UTF-8 also converts values above the last code point, and so does code page 0. Code page UTF-8 does not.
TEST(Text, ValuesAboveTheLastCodePoint) {
    const ScopedLocale locale("C.UTF-8");
    const std::wstring strText = {L'a', static_cast<wchar_t>(0x110000)};
    EXPECT_EQ(ConvertChecked<WideToNarrow>(CP_UTF8, strText), std::nullopt);
    EXPECT_EQ(ConvertChecked<WideToNarrow>(CP_UTF8, std::wstring(1, WCHAR_MAX)), std::nullopt);
    const size_t cb = std::wcstombs(nullptr, strText.c_str(), 0);
    const auto encoded = ConvertChecked<WideToNarrow>(CP_ACP, strText);
    EXPECT_EQ(encoded ? encoded->size() : static_cast<size_t>(-1), cb);
}

TEST_P(TextRules, FlagsAreIgnored) {
    wchar_t szWide[8] = {};
    char szNarrow[12] = {};
    for (const DWORD dwFlags : {1UL, 8UL, ~0UL}) {
        EXPECT_EQ(MultiByteToWideChar(GetParam(), dwFlags, kNarrow, -1, szWide, 8), 5);
        EXPECT_EQ(MultiByteToWideChar(GetParam(), dwFlags, "\xFF", -1, szWide, 8), 0);
        EXPECT_EQ(WideCharToMultiByte(GetParam(), dwFlags, kWide, -1, szNarrow, 12, nullptr, nullptr), 9);
    }
}

INSTANTIATE_TEST_SUITE_P(BothCodePages, TextRules, testing::Values(CP_ACP, CP_UTF8),
                         [](const auto& tested) { return tested.param == CP_UTF8 ? "Utf8" : "Locale"; });

TEST(Text, OtherCodePagesAreUnknown) {
    wchar_t szWide[8] = {};
    char szNarrow[8] = {};
    for (const UINT uCodePage : {1U, 2U, 3U, 42U, 437U, 936U, 1252U, 65000U, 65002U, UINT_MAX}) {
        CloseHandle(nullptr);
        EXPECT_EQ(MultiByteToWideChar(uCodePage, 0, "a", -1, szWide, 8), 0) << uCodePage;
        EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
        CloseHandle(nullptr);
        EXPECT_EQ(WideCharToMultiByte(uCodePage, 0, L"a", -1, szNarrow, 8, nullptr, nullptr), 0) << uCodePage;
        EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    }
}

// The string classes measure with libc. They then pass a buffer for that many units and a terminator.
TEST(Text, RoomAsTheStringClassesSizeIt) {
    const ScopedLocale locale("C.UTF-8");
    const size_t cch = std::mbstowcs(nullptr, kNarrow, 0);
    std::wstring strWide(cch + 1, L'#');
    EXPECT_EQ(MultiByteToWideChar(CP_ACP, 0, kNarrow, -1, strWide.data(), static_cast<int>(cch + 2)),
              static_cast<int>(cch + 1));
    EXPECT_EQ(strWide, std::wstring(kWide) + L'\0');

    const size_t cb = std::wcstombs(nullptr, kWide, 0);
    std::string strNarrow(cb + 1, '#');
    EXPECT_EQ(WideCharToMultiByte(CP_ACP, 0, kWide, -1, strNarrow.data(), static_cast<int>(cb), nullptr, nullptr),
              static_cast<int>(cb));
    EXPECT_EQ(strNarrow, std::string(kNarrow) + '#');
}

struct DefaultCase {
    const char* pszLocale;
    std::wstring strText;
    const char* pszDefault;
    const char* pszResult;  // null: refused
    DWORD dwError;
    BOOL bUsed;
};

TEST(Text, DefaultCharacters) {
    const DefaultCase cases[] = {
        {"C", L"a\u00E9b\u4E2D", "?", "a?b?", 0, TRUE},
        {"C", L"plain", "?", "plain", 0, FALSE},
        {"C", L"a\u00E9", nullptr, nullptr, ERROR_NO_UNICODE_TRANSLATION, FALSE},
        {"C", L"a\u00E9", "", nullptr, ERROR_INVALID_PARAMETER, FALSE},  // it would become a terminator
        {"C", L"plain", "", nullptr, ERROR_INVALID_PARAMETER, FALSE},
        {"C", L"a\u00E9", "xy", "ax", 0, TRUE},  // only the first character is used
        {"C.UTF-8", L"a\u00E9", "?", "a\xC3\xA9", 0, FALSE},
        {"C.UTF-8",
         {L'a', static_cast<wchar_t>(0xD800), L'b'},
         "\xC2\xBF",
         "a\xC2\xBF"
         "b",
         0,
         TRUE},
        {"C.UTF-8", {L'a', static_cast<wchar_t>(0xD800)}, "\xC2", nullptr, ERROR_INVALID_PARAMETER, FALSE},
    };
    for (const DefaultCase& row : cases) {
        const ScopedLocale locale(row.pszLocale);
        for (const bool bAskUsed : {true, false}) {
            SCOPED_TRACE(testing::Message() << row.pszLocale << " " << (row.pszDefault ? row.pszDefault : "null"));
            constexpr BOOL kUntouched = 77;
            BOOL bUsed = kUntouched;
            BOOL* pbUsed = bAskUsed ? &bUsed : nullptr;
            char szOut[20];
            std::fill(std::begin(szOut), std::end(szOut), '#');
            CloseHandle(nullptr);
            const int nNeeded =
                WideCharToMultiByte(CP_ACP, 0, row.strText.c_str(), -1, nullptr, 0, row.pszDefault, pbUsed);
            const int nResult =
                WideCharToMultiByte(CP_ACP, 0, row.strText.c_str(), -1, szOut, 20, row.pszDefault, pbUsed);
            EXPECT_EQ(nNeeded, nResult);
            if (row.pszResult == nullptr) {
                EXPECT_EQ(nResult, 0);
                EXPECT_EQ(GetLastError(), row.dwError);
                EXPECT_EQ(bUsed, kUntouched);
                EXPECT_EQ(szOut[0], '#');
                continue;
            }
            EXPECT_EQ(nResult, static_cast<int>(std::strlen(row.pszResult) + 1));
            EXPECT_STREQ(szOut, row.pszResult);
            EXPECT_EQ(bUsed, bAskUsed ? row.bUsed : kUntouched);
        }
    }
}

TEST(Text, Utf8HasNoDefaultCharacter) {
    char szOut[8] = {};
    BOOL bUsed = FALSE;
    struct Row {
        const char* pszDefault;
        BOOL* pbUsed;
    };
    for (const Row& row : {Row{"?", nullptr}, Row{nullptr, &bUsed}, Row{"?", &bUsed}}) {
        CloseHandle(nullptr);
        EXPECT_EQ(WideCharToMultiByte(CP_UTF8, 0, L"a", -1, szOut, 8, row.pszDefault, row.pbUsed), 0);
        EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    }
}

// libc's functions and code page 0 use the thread's own locale if it has one.
TEST(Text, TheThreadsLocaleCounts) {
    const ScopedLocale process("C");
    EXPECT_EQ(WideCharToMultiByte(CP_ACP, 0, L"\u00E9", -1, nullptr, 0, nullptr, nullptr), 0);
    const locale_t own = newlocale(LC_ALL_MASK, "C.UTF-8", locale_t{});
    ASSERT_NE(own, locale_t{});
    const locale_t before = uselocale(own);
    EXPECT_EQ(WideCharToMultiByte(CP_ACP, 0, L"\u00E9", -1, nullptr, 0, nullptr, nullptr), 3);
    EXPECT_EQ(MultiByteToWideChar(CP_ACP, 0, "\xC3\xA9", -1, nullptr, 0), 2);
    uselocale(before);
    freelocale(own);
}

TEST(LstrlenW, CountsUpToTheTerminator) {
    EXPECT_EQ(lstrlenW(nullptr), 0);
    EXPECT_EQ(lstrlenW(L""), 0);
    EXPECT_EQ(lstrlenW(L"abc\0def"), 3);
    EXPECT_EQ(lstrlenW(L"\U0001F600"), 1);
    EXPECT_EQ(lstrlenW(std::wstring(100000, L'x').c_str()), 100000);
}

}  // namespace
