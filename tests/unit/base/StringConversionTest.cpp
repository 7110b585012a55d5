// Conversions between narrow and wide strings in the locale's encoding.
#include <clocale>

#include "ArrayNew.h"
#include "StringKinds.h"

namespace {

class CLocaleGuard {
public:
    explicit CLocaleGuard(const char* pszLocale) : m_strOld(std::setlocale(LC_ALL, nullptr)) {
        if (std::setlocale(LC_ALL, pszLocale) == nullptr) {
            ADD_FAILURE() << "no locale " << pszLocale;
        }
    }
    ~CLocaleGuard() { std::setlocale(LC_ALL, m_strOld.c_str()); }
    CLocaleGuard(const CLocaleGuard&) = delete;
    CLocaleGuard& operator=(const CLocaleGuard&) = delete;

private:
    std::string m_strOld;
};

struct Pair {
    const char* pszNarrow;
    const wchar_t* pszWide;
};

const Pair g_aPairs[] = {
    {"a", L"a"},
    {"plain text", L"plain text"},
    {"\xc3\xa4\xe2\x82\xac\xf0\x9d\x84\x9e", L"\u00e4\u20ac\U0001d11e"},
    {"\xe7\xad\xbe\xe5\x90\x8d", L"\u7b7e\u540d"},
};

TEST(StringConversion, EachKindConvertsFromTheOther) {
    const CLocaleGuard locale("C.UTF-8");
    for (const Pair& pair : g_aPairs) {
        SCOPED_TRACE(pair.pszNarrow);
        const int nWide = static_cast<int>(std::wcslen(pair.pszWide));
        const int nNarrow = static_cast<int>(std::strlen(pair.pszNarrow));
        const CArrayNewWatch watch;
        CString strWide(pair.pszNarrow);
        EXPECT_STREQ(strWide.GetString(), pair.pszWide);
        EXPECT_EQ(strWide.GetLength(), nWide);
        EXPECT_EQ(strWide.GetAllocLength(), nWide);
        CStringA strNarrow(pair.pszWide);
        EXPECT_STREQ(strNarrow.GetString(), pair.pszNarrow);
        EXPECT_EQ(strNarrow.GetLength(), nNarrow);
        EXPECT_EQ(strNarrow.GetAllocLength(), nNarrow);
        const std::size_t nWideSize = 56 + (static_cast<std::size_t>(nWide) + 1) * 4;
        const std::size_t nNarrowSize = 56 + static_cast<std::size_t>(nNarrow) + 1;
        EXPECT_EQ(watch.Sizes(), (std::vector<std::size_t>{nWideSize, nNarrowSize}));

        const auto* const pbNarrow = reinterpret_cast<const unsigned char*>(pair.pszNarrow);
        EXPECT_EQ(CString(pbNarrow).Compare(pair.pszWide), 0);
        EXPECT_EQ(CStringA(pbNarrow).Compare(pair.pszNarrow), 0);
        strWide = L"old";
        strWide = pair.pszNarrow;
        EXPECT_EQ(strWide.Compare(pair.pszWide), 0);
        EXPECT_EQ(strWide.GetData()->nRefs, 1);
        strWide = pbNarrow;
        EXPECT_EQ(strWide.Compare(pair.pszWide), 0);
        strNarrow = "old";
        strNarrow = pair.pszWide;
        EXPECT_EQ(strNarrow.Compare(pair.pszNarrow), 0);
        EXPECT_EQ(strNarrow.GetData()->nRefs, 1);
        strNarrow = pbNarrow;
        EXPECT_EQ(strNarrow.Compare(pair.pszNarrow), 0);
        strNarrow = strWide;
        EXPECT_EQ(strNarrow.Compare(pair.pszNarrow), 0);
        EXPECT_EQ(CStringA(strWide).Compare(pair.pszNarrow), 0);
        EXPECT_EQ(CString(strNarrow).Compare(pair.pszWide), 0);
    }
}

TEST(StringConversion, ATextThatCannotBeConvertedBecomesEmpty) {
    const wchar_t szSurrogate[] = {L'a', static_cast<wchar_t>(0xD800), 0};
    const struct {
        const char* pszLocale;
        const char* pszNarrow;
        const wchar_t* pszWide;
    } aCases[] = {
        {"C.UTF-8", "a\xff", szSurrogate},
        {"C.UTF-8", "\xc3", szSurrogate + 1},
        {"C", nullptr, L"\u20ac"},
    };
    for (const auto& c : aCases) {
        const CLocaleGuard locale(c.pszLocale);
        const CArrayNewWatch watch;
        const CString strWide(c.pszNarrow);
        EXPECT_EQ(strWide.GetData(), _atltmpDataNil);
        CStringA strNarrow(c.pszWide);
        EXPECT_EQ(strNarrow.GetData(), _atltmpDataNilA);
        EXPECT_TRUE(watch.Sizes().empty());
        strNarrow = "old";
        strNarrow = c.pszWide;
        EXPECT_TRUE(strNarrow.IsEmpty());
        strNarrow = "old";
        strNarrow = CString(c.pszWide);
        EXPECT_TRUE(strNarrow.IsEmpty());
    }
}

TEST(StringConversion, CountedTextsOfTheOtherKindEndAtAZero) {
    const CLocaleGuard locale("C.UTF-8");
    const struct {
        int nLength;
        const char* pszResult;
    } aCases[] = {{-1, ""}, {0, ""}, {1, "a"}, {2, "ab"}, {3, "ab"}, {5, "ab"}};
    for (const auto& c : aCases) {
        EXPECT_EQ(CStringA(L"ab\0cd", c.nLength).Compare(c.pszResult), 0) << c.nLength;
        EXPECT_EQ(CString("ab\0cd", c.nLength).Compare(CString(c.pszResult).GetString()), 0) << c.nLength;
    }
    EXPECT_TRUE(CString(static_cast<LPCSTR>(nullptr), 3).IsEmpty());
    EXPECT_TRUE(CStringA(static_cast<LPCWSTR>(nullptr), 3).IsEmpty());
    // Half a character is not valid.
    EXPECT_TRUE(CString("\xc3\xa4", 1).IsEmpty());
}

TEST(StringConversion, AWideStringTakesNarrowCharactersAndTexts) {
    const CLocaleGuard locale("C.UTF-8");
    CString str(L"x");
    str = 'a';
    str += 'b';
    str.Append("cde", 2);
    str.Append("xyz", 0);
    str.Append("fg", ~DWORD{0});
    str.Append(static_cast<const char*>(nullptr), 2);
    EXPECT_STREQ(str.GetString(), L"abcdfg");
    str += '\xe4';  // half a character
    str += '\0';
    EXPECT_STREQ(str.GetString(), L"abcdfg");
    str = '\xe4';
    EXPECT_TRUE(str.IsEmpty());
}

TEST(StringConversion, TheConverters) {
    const CLocaleGuard locale("C.UTF-8");
    for (const auto pfnWiden : {&CString::tchar_mbstowcsz, &CStringA::char_mbstowcsz}) {
        wchar_t szWide[6] = {9, 9, 9, 9, 9, 9};
        EXPECT_GE(pfnWiden(szWide, "abcd", 5), 4);
        EXPECT_STREQ(szWide, L"abcd");
        EXPECT_EQ(szWide[5], 9);
        EXPECT_LE(pfnWiden(szWide, "\xff", 5), 0);
        EXPECT_GE(pfnWiden(nullptr, "abcd", ~size_t{0}), 4);
    }
    for (const auto pfnNarrow : {&CStringA::char_wcstombsz, &CString::tchar_wcstombsz}) {
        char szNarrow[6] = {9, 9, 9, 9, 9, 9};
        EXPECT_EQ(pfnNarrow(szNarrow, L"abcd", 4), 4);
        EXPECT_STREQ(szNarrow, "abcd");
        EXPECT_EQ(szNarrow[5], 9);
        EXPECT_GE(pfnNarrow(nullptr, L"abcd", 0), 4);
    }
}

TEST(StringConversion, CaseFollowsTheLocale) {
    const CLocaleGuard locale("C.UTF-8");
    EXPECT_EQ(CString(L"\u00c4\u0416").CompareNoCase(L"\u00e4\u0436"), 0);
    // In narrow text only one-byte characters have a case.
    EXPECT_NE(CStringA("\xc3\x84").CompareNoCase("\xc3\xa4"), 0);
}

TEST(StringConversion, NarrowCharNextStepsOverMultibyteCharacters) {
    const CLocaleGuard locale("C.UTF-8");
    const char szText[] = "a\xe2\x82\xac\xff\xc3";
    const char* psz = szText;
    for (const int nStep : {1, 3, 1, 1, 0}) {
        const char* const pszNext = CStringA::CharNext(psz);
        EXPECT_EQ(pszNext - psz, nStep);
        psz = pszNext;
    }
}

TEST(StringConversion, AnsiAndOemAreOneEncoding) {
    CStringA str("a\xc3\xa4");
    const CStringA strOther(str);
    str.AnsiToOem();
    str.OemToAnsi();
    EXPECT_STREQ(str.GetString(), "a\xc3\xa4");
    EXPECT_EQ(str.GetString(), strOther.GetString());
}

TEST(StringConversion, SystemStringsOfNarrowTextAreWide) {
    const CLocaleGuard locale("C.UTF-8");
    const BSTR bstr = CStringA("\xe2\x82\xac").AllocSysString();
    ASSERT_NE(bstr, nullptr);
    EXPECT_STREQ(bstr, L"\u20ac");
    HeapFree(GetProcessHeap(), 0, bstr);
}

}  // namespace
