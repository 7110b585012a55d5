// Texts of the counted strings: parts, searching, comparing, changing, and the character helpers.
#include <climits>
#include <clocale>
#include <optional>

#include "StringKinds.h"
#include "VEXCompat.h"

namespace {

template <typename TKind>
class StringText : public CStringKindTest<TKind> {
public:
    using Kind = CStringKindTest<TKind>;
    using CharT = typename Kind::CharT;

    // A literal for a text argument; null stays null.
    class Argument {
    public:
        Argument(const char* psz) : m_text(psz == nullptr ? std::nullopt : std::optional(Kind::T(psz))) {}
        const CharT* Get() const { return m_text ? m_text->c_str() : nullptr; }

    private:
        std::optional<typename Kind::Text> m_text;
    };
};
TYPED_TEST_SUITE(StringText, StringKinds, StringKindNames);

TYPED_TEST(StringText, CountedConstructionTakesTheTextWhole) {
    using F = TestFixture;
    const auto text = F::T(std::string_view("ab\0cd", 5));
    const typename F::StringT str(text.data(), 5);
    EXPECT_EQ(F::Counted(str), text);
    EXPECT_EQ(str.GetAllocLength(), 5);
    EXPECT_EQ(str.Find('d'), 4);
    EXPECT_EQ(str.Compare(F::T("ab").c_str()), 0);
    EXPECT_EQ(F::Plain(typename F::StringT(text[0], 4)), "aaaa");
    const typename F::StringT strTwice(str);
    EXPECT_EQ(F::Counted(strTwice.Mid(1)), text.substr(1));
}

TYPED_TEST(StringText, Parts) {
    using F = TestFixture;
    struct Case {
        int nFirst;
        int nCount;
        const char* pszMid;
        const char* pszMidToEnd;
        const char* pszLeft;
        const char* pszRight;
    };
    // Left and Right take nCount.
    const Case aCases[] = {
        {0, 2, "ab", "abcde", "ab", "de"},
        {1, 3, "bcd", "bcde", "abc", "cde"},
        {4, 1, "e", "e", "a", "e"},
        {5, 1, "", "", "a", "e"},
        {6, 1, "", "", "a", "e"},
        {INT_MAX, INT_MAX, "", "", "abcde", "abcde"},
        {-1, 2, "ab", "abcde", "ab", "de"},
        {INT_MIN, INT_MIN, "", "abcde", "", ""},
        {2, -1, "", "cde", "", ""},
        {2, 0, "", "cde", "", ""},
        {2, 3, "cde", "cde", "abc", "cde"},
        {2, 99, "cde", "cde", "abcde", "abcde"},
        {0, 5, "abcde", "abcde", "abcde", "abcde"},
    };
    const typename F::StringT str = F::S("abcde");
    for (const Case& c : aCases) {
        SCOPED_TRACE(std::to_string(c.nFirst) + ", " + std::to_string(c.nCount));
        EXPECT_EQ(F::Plain(str.Mid(c.nFirst, c.nCount)), c.pszMid);
        EXPECT_EQ(F::Plain(str.Mid(c.nFirst)), c.pszMidToEnd);
        EXPECT_EQ(F::Plain(str.Left(c.nCount)), c.pszLeft);
        EXPECT_EQ(F::Plain(str.Right(c.nCount)), c.pszRight);
        EXPECT_TRUE(F::IsEmptyBlock(typename F::StringT().Mid(c.nFirst, c.nCount)));
        EXPECT_TRUE(F::IsEmptyBlock(typename F::StringT().Right(c.nCount)));
    }
    EXPECT_EQ(F::Address(str.Mid(0)), F::Address(str));
    EXPECT_EQ(F::Address(str.Right(5)), F::Address(str));
}

TYPED_TEST(StringText, SingleCharacters) {
    using F = TestFixture;
    typename F::StringT str = F::S("abc");
    const typename F::StringT strOther(str);
    const std::pair<int, char> aReads[] = {{0, 'a'}, {2, 'c'}, {3, 0}, {4, 0}, {-1, 0}, {INT_MAX, 0}, {INT_MIN, 0}};
    for (const auto& [nIndex, ch] : aReads) {
        EXPECT_EQ(str.GetAt(nIndex), ch) << nIndex;
        EXPECT_EQ(str[nIndex], ch) << nIndex;
    }
    EXPECT_EQ(str[0], 'a');
    EXPECT_EQ(strOther[0], 'a');
    for (const int nIndex : {3, -1, INT_MAX, INT_MIN}) {
        str.SetAt(nIndex, 'x');
        EXPECT_EQ(F::Address(str), F::Address(strOther)) << nIndex;
    }
    str.SetAt(1, 'x');
    EXPECT_EQ(F::Plain(str), "axc");
    EXPECT_EQ(F::Plain(strOther), "abc");
    str.SetAt(1, 0);
    EXPECT_EQ(str.GetLength(), 3);
    typename F::StringT strEmpty;
    strEmpty.SetAt(0, 'x');
    EXPECT_EQ(strEmpty.GetAt(0), 0);
}

TYPED_TEST(StringText, Find) {
    using F = TestFixture;
    struct Case {
        const char* pszText;
        const char* pszSub;
        int nStart;
        int nFound;
    };
    const Case aCases[] = {
        {"abcabc", "abc", 0, 0},  {"abcabc", "abc", 1, 3},   {"abcabc", "abc", 4, -1},      {"abcabc", "c", 0, 2},
        {"abcabc", "x", 0, -1},   {"abcabc", "abc", -1, 0},  {"abcabc", "abc", INT_MIN, 0}, {"abcabc", "abc", 6, -1},
        {"abcabc", "abc", 7, -1}, {"abcabc", "", 0, 0},      {"abcabc", "", 4, 4},          {"abcabc", "", 6, 6},
        {"abcabc", "", 7, -1},    {"abcabc", nullptr, 2, 2}, {"abcabc", "a", INT_MAX, -1},  {"", "a", 0, -1},
        {"", "", 0, 0},           {"", "", 1, -1},           {"ab", "abc", 0, -1},          {"aab", "ab", 0, 1},
    };
    for (const Case& c : aCases) {
        SCOPED_TRACE(std::string(c.pszText) + " / " + (c.pszSub ? c.pszSub : "(null)") + " from " +
                     std::to_string(c.nStart));
        const typename F::StringT str = F::S(c.pszText);
        const typename TestFixture::Argument sub(c.pszSub);
        EXPECT_EQ(str.Find(sub.Get(), c.nStart), c.nFound);
        if (c.nStart == 0) {
            EXPECT_EQ(str.Find(sub.Get()), c.nFound);
        }
        if (c.pszSub != nullptr && std::strlen(c.pszSub) == 1) {
            const auto ch = static_cast<typename F::CharT>(*c.pszSub);
            EXPECT_EQ(str.Find(ch, c.nStart), c.nFound);
        }
    }
}

TYPED_TEST(StringText, FindCharacterAndReverseFind) {
    using F = TestFixture;
    struct Case {
        const char* pszText;
        char ch;
        int nFirst;
        int nLast;
    };
    const Case aCases[] = {{"abcabc", 'a', 0, 3}, {"abcabc", 'c', 2, 5}, {"abcabc", 'x', -1, -1},
                           {"abcabc", 0, -1, -1}, {"", 'a', -1, -1},     {"a", 'a', 0, 0}};
    for (const Case& c : aCases) {
        const typename F::StringT str = F::S(c.pszText);
        const auto ch = static_cast<typename F::CharT>(c.ch);
        EXPECT_EQ(str.Find(ch), c.nFirst) << c.pszText << c.ch;
        EXPECT_EQ(str.ReverseFind(ch), c.nLast) << c.pszText << c.ch;
    }
}

TYPED_TEST(StringText, Comparisons) {
    using F = TestFixture;
    struct Case {
        const char* pszLeft;
        const char* pszRight;
        int nOrder;
        int nOrderNoCase;
    };
    const Case aCases[] = {
        {"abc", "abc", 0, 0},  {"abc", "abd", -1, -1}, {"abd", "abc", 1, 1},   {"abc", "ab", 1, 1},
        {"ab", "abc", -1, -1}, {"abc", "ABC", 1, 0},   {"ABC", "abd", -1, -1}, {"B", "a", -1, 1},
        {"", "", 0, 0},        {"", "a", -1, -1},      {"a", nullptr, 1, 1},   {"", nullptr, 0, 0},
    };
    for (const Case& c : aCases) {
        SCOPED_TRACE(std::string(c.pszLeft) + " / " + (c.pszRight ? c.pszRight : "(null)"));
        using Algorithms = CVEXText<typename F::CharT>;
        const typename F::StringT str = F::S(c.pszLeft);
        const typename TestFixture::Argument right(c.pszRight);
        EXPECT_EQ(str.Compare(right.Get()), c.nOrder);
        EXPECT_EQ(str.CompareNoCase(right.Get()), c.nOrderNoCase);
        // The locales of the tests collate by character code.
        EXPECT_EQ(str.CollateNoCase(right.Get()), c.nOrderNoCase);
        EXPECT_EQ(Algorithms::Collate(str.GetString(), right.Get()), c.nOrder);
        EXPECT_EQ(Algorithms::Compare(right.Get(), str.GetString()), -c.nOrder);
    }
}

TYPED_TEST(StringText, Replace) {
    using F = TestFixture;
    struct Case {
        const char* pszText;
        const char* pszOld;
        const char* pszNew;
        int nReplaced;
        const char* pszResult;
    };
    const Case aCases[] = {
        {"abcabc", "b", "x", 2, "axcaxc"},
        {"abcabc", "bc", "", 2, "aa"},
        {"abcabc", "abc", nullptr, 2, ""},
        {"abcabc", "a", "aa", 2, "aabcaabc"},
        {"aaa", "aa", "b", 1, "ba"},
        {"abc", "x", "y", 0, "abc"},
        {"abc", "", "y", 0, "abc"},
        {"abc", nullptr, "y", 0, "abc"},
        {"", "a", "b", 0, ""},
        {"abc", "abc", "longer text", 1, "longer text"},
        {"abc", "abcd", "x", 0, "abc"},
    };
    for (const Case& c : aCases) {
        SCOPED_TRACE(c.pszText);
        typename F::StringT str = F::S(c.pszText);
        const typename F::StringT strOther(str);
        const typename TestFixture::Argument from(c.pszOld);
        const typename TestFixture::Argument to(c.pszNew);
        EXPECT_EQ(str.Replace(from.Get(), to.Get()), c.nReplaced);
        EXPECT_EQ(F::Plain(str), c.pszResult);
        EXPECT_EQ(F::Plain(strOther), c.pszText);
        EXPECT_EQ(F::Address(str) == F::Address(strOther), c.nReplaced == 0);
    }
}

TYPED_TEST(StringText, Insert) {
    using F = TestFixture;
    struct Case {
        const char* pszText;
        int nIndex;
        const char* pszInserted;
        const char* pszResult;
    };
    const Case aCases[] = {
        {"abc", 0, "xy", "xyabc"},     {"abc", 1, "xy", "axybc"}, {"abc", 3, "xy", "abcxy"}, {"abc", 4, "xy", "abcxy"},
        {"abc", INT_MAX, "z", "abcz"}, {"abc", -1, "z", "zabc"},  {"abc", 1, "", "abc"},     {"abc", 1, nullptr, "abc"},
        {"", 0, "xy", "xy"},           {"", 5, "z", "z"},         {"", 0, "", ""},
    };
    for (const Case& c : aCases) {
        SCOPED_TRACE(c.pszResult);
        typename F::StringT str = F::S(c.pszText);
        const typename F::StringT strOther(str);
        const typename TestFixture::Argument inserted(c.pszInserted);
        EXPECT_EQ(str.Insert(c.nIndex, inserted.Get()), static_cast<int>(std::strlen(c.pszResult)));
        EXPECT_EQ(F::Plain(str), c.pszResult);
        EXPECT_EQ(F::Plain(strOther), c.pszText);
        if (c.pszInserted != nullptr && std::strlen(c.pszInserted) == 1) {
            typename F::StringT strByCharacter(strOther);
            strByCharacter.Insert(c.nIndex, static_cast<typename F::CharT>(*c.pszInserted));
            EXPECT_EQ(F::Plain(strByCharacter), c.pszResult);
        }
    }
    typename F::StringT str = F::S("ab");
    EXPECT_EQ(str.Insert(1, typename F::CharT(0)), 3);
    EXPECT_EQ(F::Plain(str), std::string("a\0b", 3));
}

TYPED_TEST(StringText, AppendingCharactersTextsAndNumbers) {
    using F = TestFixture;
    const auto text = F::T("xyz");
    const typename F::CharT* const pszNull = nullptr;
    typename F::StringT str = F::S("a");
    str += typename F::CharT('b');
    str += F::S("c");
    str += text.c_str();
    str += pszNull;
    str += typename F::StringT();
    EXPECT_EQ(F::Plain(str), "abcxyz");
    str.Append(text.c_str(), 2);
    str.Append(text.c_str(), 0);
    str.Append(pszNull, 9);
    EXPECT_EQ(F::Plain(str), "abcxyzxy");

    const std::pair<int, const char*> aNumbers[] = {
        {0, "0"}, {-1, "-1"}, {42, "42"}, {INT_MAX, "2147483647"}, {INT_MIN, "-2147483648"}};
    for (const auto& [nNumber, pszNumber] : aNumbers) {
        typename F::StringT strNumber = F::S("n");
        strNumber.Append(nNumber);
        EXPECT_EQ(F::Plain(strNumber), std::string("n") + pszNumber);
        EXPECT_EQ(CVEXText<typename F::CharT>::ToInt(strNumber.GetString() + 1), nNumber);
    }
}

TYPED_TEST(StringText, AssigningCharacters) {
    using F = TestFixture;
    typename F::StringT str = F::S("abc");
    str = typename F::CharT('x');
    EXPECT_EQ(F::Plain(str), "x");
    EXPECT_EQ(str.GetAllocLength(), 1);
    str = typename F::CharT(0);
    EXPECT_EQ(str.GetLength(), 1);
    EXPECT_EQ(str.GetAt(0), 0);
}

TYPED_TEST(StringText, ValidStringsAndTheFixedHelpers) {
    using F = TestFixture;
    const typename F::CharT* const pszNull = nullptr;
    const auto text = F::T("abc");
    EXPECT_TRUE(F::StringT::_IsValidString(text.c_str()));
    EXPECT_FALSE(F::StringT::_IsValidString(pszNull));
    EXPECT_EQ(F::StringT::SafeStrlen(text.c_str()), 3);
    EXPECT_EQ(F::StringT::SafeStrlen(pszNull), 0);
    EXPECT_EQ(F::StringT::CharNext(pszNull), nullptr);
    EXPECT_EQ(F::StringT::CharNext(text.c_str()), text.c_str() + 1);
    EXPECT_EQ(F::StringT::CharNext(text.c_str() + 3), text.c_str() + 3);

    typename F::StringT str = F::S("abc");
    EXPECT_FALSE(str._LoadString(1));
    EXPECT_TRUE(F::IsEmptyBlock(str));
    EXPECT_EQ(&F::StringT::_GetEmptyString(), &F::StringT::_GetEmptyString());
}

TYPED_TEST(StringText, SystemStringsAreCopiesOnTheProcessHeap) {
    using F = TestFixture;
    for (const char* pszText : {"", "abc"}) {
        const typename F::StringT str = F::S(pszText);
        const BSTR bstr = str.AllocSysString();
        ASSERT_NE(bstr, nullptr);
        const std::size_t nLength = std::strlen(pszText);
        EXPECT_EQ(std::wstring(bstr), std::wstring(pszText, pszText + nLength));
        EXPECT_EQ(HeapSize(GetProcessHeap(), 0, bstr), (nLength + 1) * sizeof(WCHAR));
        HeapFree(GetProcessHeap(), 0, bstr);
    }
}

// The two classes have different names for the same helpers.
template <typename TKind>
struct Helpers;

template <>
struct Helpers<WideKind> {
    static constexpr auto pfnChrDb = &CString::tchar_cstrchr_db;
    static constexpr auto pfnChr = &CString::tchar_cstrchr;
    static constexpr auto pfnRChr = &CString::tchar_cstrrchr;
    static constexpr auto pfnRev = &CString::tchar_cstrrev;
    static constexpr auto pfnStr = &CString::tchar_cstrstr;
    static constexpr auto pfnSpn = &CString::tchar_cstrspn;
    static constexpr auto pfnCSpn = &CString::tchar_cstrcspn;
    static constexpr auto pfnPBrk = &CString::tchar_cstrpbrk;
    static constexpr auto pfnIsDigit = &CString::tchar_cstrisdigit;
    static constexpr auto pfnIsSpace = &CString::tchar_cstrisspace;
    static constexpr auto pfnCmp = &CString::tchar_cstrcmp;
    static constexpr auto pfnCmpI = &CString::tchar_cstrcmpi;
    static constexpr auto pfnColl = &CString::tchar_cstrcoll;
    static constexpr auto pfnCollI = &CString::tchar_cstrcolli;
    static constexpr auto pfnToI = &CString::tchar_cstrtoi;
};

template <>
struct Helpers<NarrowKind> {
    static constexpr auto pfnChrDb = &CStringA::char_cstrchr_db;
    static constexpr auto pfnChr = &CStringA::char_cstrchr;
    static constexpr auto pfnRChr = &CStringA::char_cstrrchr;
    static constexpr auto pfnRev = &CStringA::char_cstrrev;
    static constexpr auto pfnStr = &CStringA::char_cstrstr;
    static constexpr auto pfnSpn = &CStringA::char_cstrspn;
    static constexpr auto pfnCSpn = &CStringA::char_cstrcspn;
    static constexpr auto pfnPBrk = &CStringA::char_cstrpbrk;
    static constexpr auto pfnIsDigit = &CStringA::char_cstrisdigit;
    static constexpr auto pfnIsSpace = &CStringA::char_cstrisspace;
    static constexpr auto pfnCmp = &CStringA::char_cstrcmp;
    static constexpr auto pfnCmpI = &CStringA::char_cstrcmpi;
    static constexpr auto pfnColl = &CStringA::char_cstrcoll;
    static constexpr auto pfnCollI = &CStringA::char_cstrcolli;
    static constexpr auto pfnToI = &CStringA::char_cstrtoi;
};

TYPED_TEST(StringText, CharacterHelpersSearch) {
    using F = TestFixture;
    using H = Helpers<TypeParam>;
    using Char = typename F::CharT;
    const auto text = F::T("abcabc");
    const auto set = F::T("cb");
    const auto none = F::T("xyz");
    const auto empty = F::T("");
    const Char* const p = text.c_str();
    const Char* const pszNull = nullptr;

    EXPECT_EQ(H::pfnChr(p, 'b'), p + 1);
    EXPECT_EQ(H::pfnChr(p, 'x'), nullptr);
    EXPECT_EQ(H::pfnChr(p, 0), p + 6);
    EXPECT_EQ(H::pfnRChr(p, 'b'), p + 4);
    EXPECT_EQ(H::pfnRChr(p, 'x'), nullptr);
    EXPECT_EQ(H::pfnRChr(p, 0), p + 6);
    EXPECT_EQ(H::pfnChrDb(p, 'c', 'a'), p + 2);
    EXPECT_EQ(H::pfnChrDb(p, 'c', 'b'), nullptr);
    EXPECT_EQ(H::pfnStr(p, set.c_str()), nullptr);
    EXPECT_EQ(H::pfnStr(p, text.c_str() + 4), p + 1);
    EXPECT_EQ(H::pfnStr(p, empty.c_str()), p);
    EXPECT_EQ(H::pfnSpn(p + 1, set.c_str()), 2);
    EXPECT_EQ(H::pfnSpn(p, set.c_str()), 0);
    EXPECT_EQ(H::pfnSpn(p, p), 6);
    EXPECT_EQ(H::pfnCSpn(p, set.c_str()), 1);
    EXPECT_EQ(H::pfnCSpn(p, none.c_str()), 6);
    EXPECT_EQ(H::pfnPBrk(p, set.c_str()), p + 1);
    EXPECT_EQ(H::pfnPBrk(p, none.c_str()), nullptr);

    EXPECT_EQ(H::pfnChr(pszNull, 'a'), nullptr);
    EXPECT_EQ(H::pfnChr(pszNull, 0), nullptr);
    EXPECT_EQ(H::pfnStr(pszNull, p), nullptr);
    EXPECT_EQ(H::pfnStr(p, pszNull), p);
    EXPECT_EQ(H::pfnSpn(pszNull, p), 0);
    EXPECT_EQ(H::pfnCSpn(p, pszNull), 6);
}

TYPED_TEST(StringText, CharacterHelpersCompareAndConvert) {
    using F = TestFixture;
    using H = Helpers<TypeParam>;
    using Char = typename F::CharT;
    const auto lower = F::T("abc");
    const auto upper = F::T("ABD");
    const Char* const pszNull = nullptr;
    EXPECT_EQ(H::pfnCmp(lower.c_str(), upper.c_str()), 1);
    EXPECT_EQ(H::pfnCmpI(lower.c_str(), upper.c_str()), -1);
    EXPECT_EQ(H::pfnColl(lower.c_str(), upper.c_str()), 1);
    EXPECT_EQ(H::pfnCollI(lower.c_str(), upper.c_str()), -1);
    EXPECT_EQ(H::pfnCmp(pszNull, pszNull), 0);
    EXPECT_EQ(H::pfnCollI(pszNull, lower.c_str()), -1);

    auto odd = F::T("abc");
    auto even = F::T("abcd");
    auto empty = F::T("");
    EXPECT_EQ(H::pfnRev(odd.data()), odd.data());
    H::pfnRev(even.data());
    H::pfnRev(empty.data());
    EXPECT_EQ(odd, F::T("cba"));
    EXPECT_EQ(even, F::T("dcba"));
    EXPECT_EQ(empty, F::T(""));
    EXPECT_EQ(H::pfnRev(nullptr), nullptr);

    for (int ch = 0; ch < 128; ++ch) {
        EXPECT_EQ(H::pfnIsDigit(static_cast<Char>(ch)) != 0, ch >= '0' && ch <= '9') << ch;
        EXPECT_EQ(H::pfnIsSpace(static_cast<Char>(ch)) != 0, ch == ' ' || (ch >= '\t' && ch <= '\r')) << ch;
    }
    EXPECT_FALSE(H::pfnIsDigit(static_cast<Char>(0xE4)));

    const std::pair<const char*, int> aNumbers[] = {
        {"0", 0},
        {"42", 42},
        {" -7", -7},
        {"+3x", 3},
        {"", 0},
        {"x1", 0},
        {"1 2", 1},
        {"010", 10},
        {"0x10", 0},
        {"2147483647", INT_MAX},
        {"2147483648", INT_MAX},
        {"-2147483648", INT_MIN},
        {"-2147483649", INT_MIN},
        {"99999999999999999999", INT_MAX},
    };
    for (const auto& [pszNumber, nNumber] : aNumbers) {
        EXPECT_EQ(H::pfnToI(F::T(pszNumber).c_str()), nNumber) << pszNumber;
    }
    EXPECT_EQ(H::pfnToI(nullptr), 0);
}

}  // namespace
