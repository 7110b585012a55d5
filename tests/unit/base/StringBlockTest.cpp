// Blocks of the counted strings: how they are allocated, shared, copied, reused and freed.
#include <algorithm>
#include <climits>
#include <memory>
#include <new>
#include <vector>

#include "ArrayNew.h"
#include "StringKinds.h"

namespace {

using Sizes = std::vector<std::size_t>;

template <typename TKind>
class StringBlock : public CStringKindTest<TKind> {};
TYPED_TEST_SUITE(StringBlock, StringKinds, StringKindNames);

TYPED_TEST(StringBlock, EmptyTextsUseTheEmptyBlockWithoutAllocation) {
    using F = TestFixture;
    using String = typename F::StringT;
    const typename F::CharT* const pszNull = nullptr;
    const auto text = F::T("abc");
    const CArrayNewWatch watch;
    const String aStrings[] = {
        String(),
        String(pszNull),
        String(text.c_str() + 3),
        String(text.c_str(), 0),
        String(text.c_str(), -1),
        String(pszNull, 3),
        String(text[0], 0),
        String(text[0], -1),
        String(static_cast<LPCSTR>(nullptr)),
        String(static_cast<LPCSTR>("")),
        String(static_cast<LPCWSTR>(nullptr)),
        String(static_cast<LPCWSTR>(L"")),
        String(static_cast<const unsigned char*>(nullptr)),
        String(String()),
    };
    for (const String& str : aStrings) {
        EXPECT_TRUE(F::IsEmptyBlock(str));
        EXPECT_EQ(str.GetLength(), 0);
        EXPECT_EQ(str.GetAllocLength(), 0);
        EXPECT_TRUE(str.IsEmpty());
        EXPECT_EQ(str.GetString()[0], 0);
        EXPECT_EQ(str.GetData(), TypeParam::Nil());
        EXPECT_EQ(F::Refs(str), -1);
    }
    EXPECT_EQ(watch.Sizes(), Sizes{});
}

TYPED_TEST(StringBlock, TheEmptyBlocksAreDistinctArraysOfInt) {
    using F = TestFixture;
    EXPECT_EQ(sizeof(TypeParam::rgInit), 8197 * sizeof(int));
    EXPECT_EQ(static_cast<void*>(TypeParam::rgInit), static_cast<void*>(TypeParam::Nil()));
    EXPECT_EQ(reinterpret_cast<const BYTE*>(TypeParam::PchNil()),
              reinterpret_cast<const BYTE*>(TypeParam::rgInit) + 56);
    EXPECT_EQ(TypeParam::rgInit[0], -1);
    EXPECT_TRUE(std::all_of(TypeParam::rgInit + 2, std::end(TypeParam::rgInit), [](int n) { return n == 0; }));
    EXPECT_NE(static_cast<void*>(rgInitData), static_cast<void*>(rgInitDataA));
    EXPECT_TRUE(F::IsEmptyBlock(F::StringT::_GetEmptyString()));
}

TYPED_TEST(StringBlock, ATextAllocatesExactlyItsBlockAndFreesIt) {
    using F = TestFixture;
    const CArrayNewWatch watch;
    {
        const auto str = F::S("abcde");
        EXPECT_EQ(watch.Sizes(), Sizes{F::BlockSize(5)});
        EXPECT_EQ(str.GetLength(), 5);
        EXPECT_EQ(str.GetAllocLength(), 5);
        EXPECT_EQ(F::Refs(str), 1);
        EXPECT_EQ(str.GetString()[5], 0);
        EXPECT_EQ(watch.FreedCount(), 0U);
    }
    EXPECT_EQ(watch.FreedCount(), 1U);
}

TYPED_TEST(StringBlock, AllocBufferGivesZeroCharactersAndDoesNotRelease) {
    using F = TestFixture;
    typename F::StringT str = F::S("abc");
    auto* const pOld = str.GetData();
    const CArrayNewWatch watch;
    EXPECT_EQ(str.AllocBuffer(10), 1);
    EXPECT_EQ(watch.Sizes(), Sizes{F::BlockSize(10)});
    EXPECT_EQ(str.GetLength(), 10);
    EXPECT_EQ(str.GetAllocLength(), 10);
    EXPECT_EQ(F::Refs(str), 1);
    EXPECT_EQ(F::Counted(str), typename F::Text(10, 0));
    EXPECT_EQ(str.GetString()[10], 0);
    EXPECT_EQ(pOld->nRefs, 1);
    F::StringT::Release(pOld);
}

TYPED_TEST(StringBlock, AllocBufferOfZeroEmptiesTheString) {
    using F = TestFixture;
    typename F::StringT str = F::S("abc");
    const typename F::StringT strOther(str);
    EXPECT_EQ(str.AllocBuffer(0), 1);
    EXPECT_TRUE(F::IsEmptyBlock(str));
    EXPECT_EQ(F::Refs(strOther), 1);
    EXPECT_EQ(str.AllocBuffer(0), 1);
    EXPECT_TRUE(F::IsEmptyBlock(str));
}

TYPED_TEST(StringBlock, CopiesShareTheBlockUntilTheLastIsDestroyed) {
    using F = TestFixture;
    const CArrayNewWatch watch;
    {
        auto pStr = std::make_unique<typename F::StringT>(F::S("abc"));
        const typename F::StringT strCopy(*pStr);
        typename F::StringT strAssigned;
        strAssigned = strCopy;
        EXPECT_EQ(F::Refs(strCopy), 3);
        EXPECT_EQ(F::Address(strAssigned), F::Address(strCopy));
        pStr.reset();
        EXPECT_EQ(F::Refs(strCopy), 2);
        strAssigned.Empty();
        EXPECT_EQ(F::Refs(strCopy), 1);
        EXPECT_EQ(watch.FreedCount(), 0U);
        EXPECT_EQ(F::Plain(strCopy), "abc");
    }
    EXPECT_EQ(watch.Sizes(), Sizes{F::BlockSize(3)});
    EXPECT_EQ(watch.FreedCount(), 1U);
}

TYPED_TEST(StringBlock, AssigningAStringToItselfOrToASharerChangesNothing) {
    using F = TestFixture;
    typename F::StringT str = F::S("abc");
    typename F::StringT strSharer(str);
    const typename F::StringT& strSelf = str;
    str = strSelf;
    str = strSharer;
    EXPECT_EQ(F::Refs(str), 2);
    EXPECT_EQ(F::Address(str), F::Address(strSharer));
}

TYPED_TEST(StringBlock, ABlockThatIsNotCountedIsCopiedInsteadOfShared) {
    using F = TestFixture;
    typename F::StringT str = F::S("abc");
    str.GetData()->nRefs = -1;
    {
        const typename F::StringT strCopy(str);
        EXPECT_NE(F::Address(strCopy), F::Address(str));
        EXPECT_EQ(F::Plain(strCopy), "abc");
    }
    EXPECT_EQ(F::Refs(str), -1);
    str.GetData()->nRefs = 1;
}

TYPED_TEST(StringBlock, ReleasingTheEmptyStringChangesNothing) {
    using F = TestFixture;
    typename F::StringT str;
    str.Release();
    str.Release();
    EXPECT_TRUE(F::IsEmptyBlock(str));
    EXPECT_EQ(F::Refs(str), -1);
    EXPECT_TRUE(str.IsEmpty());
}

TYPED_TEST(StringBlock, ReleaseNeverChangesANegativeCount) {
    using F = TestFixture;
    typename F::StringT str = F::S("abc");
    auto* const pData = str.GetData();
    pData->nRefs = -3;
    const CArrayNewWatch watch;
    str.Release();
    EXPECT_TRUE(F::IsEmptyBlock(str));
    EXPECT_EQ(pData->nRefs, -3);
    pData->nRefs = 1;
    F::StringT::Release(pData);
}

TYPED_TEST(StringBlock, ReleasingABlockIgnoresNullAndTheEmptyBlock) {
    using F = TestFixture;
    const typename F::StringT strEmpty;
    F::StringT::Release(static_cast<typename F::Data*>(nullptr));
    F::StringT::Release(strEmpty.GetData());
    EXPECT_EQ(TypeParam::Nil()->nRefs, -1);
    typename F::StringT str = F::S("abc");
    typename F::StringT strOther(str);
    F::StringT::Release(str.GetData());
    EXPECT_EQ(F::Refs(strOther), 1);
    str.GetData()->nRefs = 2;
}

// A destructor accepts a count of 0; Release has an assertion against it.
TYPED_TEST(StringBlock, TheDestructorFreesABlockWithoutOwners) {
    using F = TestFixture;
    auto pStr = std::make_unique<typename F::StringT>();
    pStr->AllocBuffer(3);
    pStr->GetData()->nRefs = 0;
    const CArrayNewWatch watch;
    auto* const pData = pStr->GetData();
    pStr.reset();
    EXPECT_NE(pData, TypeParam::Nil());
    EXPECT_EQ(watch.Sizes(), Sizes{});
}

TYPED_TEST(StringBlock, EmptyingAStringStampsTheEmptyBlock) {
    using F = TestFixture;
    using String = typename F::StringT;
    using Owner = std::unique_ptr<String>;
    static const typename F::CharT chNone = 0;
    struct Way {
        const char* pszName;
        void (*pfnEmpty)(Owner&);
    };
    const Way aWays[] = {
        {"construction of another string", [](Owner&) { String().IsEmpty(); }},
        {"Release", [](Owner& pStr) { pStr->Release(); }},
        {"Empty", [](Owner& pStr) { pStr->Empty(); }},
        {"AllocBuffer", [](Owner& pStr) { pStr->AllocBuffer(0); }},
        {"assignment of an empty text", [](Owner& pStr) { *pStr = &chNone; }},
        {"destruction", [](Owner& pStr) { pStr.reset(); }},
    };
    for (const Way& way : aWays) {
        Owner pStr = std::make_unique<String>(F::T("abc").c_str());
        auto* const pNil = TypeParam::Nil();
        pNil->nRefs = 7;
        pNil->nDataLength = 8;
        pNil->nAllocLength = 9;
        *pNil->data() = 'x';
        way.pfnEmpty(pStr);
        EXPECT_EQ(pNil->nRefs, -1) << way.pszName;
        EXPECT_EQ(pNil->nDataLength, 0) << way.pszName;
        EXPECT_EQ(pNil->nAllocLength, 0) << way.pszName;
        EXPECT_EQ(*pNil->data(), 0) << way.pszName;
    }
}

TYPED_TEST(StringBlock, AssigningNullToASharerEmptiesOnlyThatString) {
    using F = TestFixture;
    using String = typename F::StringT;
    const typename F::CharT* const pszNull = nullptr;
    const typename F::CharT chEnd = 0;
    for (const typename F::CharT* pszNothing : {pszNull, &chEnd}) {
        String str = F::S("abc");
        const String strOther(str);
        ASSERT_EQ(F::Refs(strOther), 2);
        str = pszNothing;
        EXPECT_TRUE(F::IsEmptyBlock(str));
        EXPECT_EQ(F::Refs(strOther), 1);
        EXPECT_EQ(F::Plain(strOther), "abc");
    }
}

TYPED_TEST(StringBlock, AShorterTextReusesAPrivateBlock) {
    using F = TestFixture;
    typename F::StringT str;
    str.AllocBuffer(10);
    const auto* const pchBlock = F::Address(str);
    const auto text = F::T("abc");
    const CArrayNewWatch watch;
    str = text.c_str();
    EXPECT_EQ(F::Address(str), pchBlock);
    EXPECT_EQ(str.GetAllocLength(), 3);
    EXPECT_EQ(str.GetLength(), 3);
    EXPECT_EQ(str.GetString()[3], 0);
    EXPECT_EQ(watch.Sizes(), Sizes{});

    // The recorded capacity decides, not the block's original room.
    str = F::T("abcd").c_str();
    EXPECT_EQ(watch.Sizes(), Sizes{F::BlockSize(4)});
    EXPECT_EQ(F::Plain(str), "abcd");
}

TYPED_TEST(StringBlock, AssignmentDoesNotChangeTheOtherSharers) {
    using F = TestFixture;
    typename F::StringT str = F::S("abcdef");
    const typename F::StringT strOther(str);
    str = F::T("xy").c_str();
    EXPECT_EQ(F::Plain(str), "xy");
    EXPECT_EQ(str.GetAllocLength(), 2);
    EXPECT_EQ(F::Plain(strOther), "abcdef");
    EXPECT_EQ(F::Refs(strOther), 1);
}

TYPED_TEST(StringBlock, AllocBeforeWriteReusesAPrivateBlockThatIsLargeEnough) {
    using F = TestFixture;
    typename F::StringT str = F::S("abcde");
    const auto* const pchBlock = F::Address(str);
    for (const int nLength : {3, 5, 0, -1}) {
        EXPECT_EQ(str.AllocBeforeWrite(nLength), 1);
        EXPECT_EQ(F::Address(str), pchBlock) << nLength;
        EXPECT_EQ(str.GetAllocLength(), 5) << nLength;
    }
    const CArrayNewWatch watch;
    EXPECT_EQ(str.AllocBeforeWrite(6), 1);
    EXPECT_EQ(watch.Sizes(), Sizes{F::BlockSize(6)});
    EXPECT_EQ(str.GetAllocLength(), 6);
}

TYPED_TEST(StringBlock, AllocBeforeWriteDoesNotReuseASharedBlock) {
    using F = TestFixture;
    typename F::StringT str = F::S("abcde");
    const typename F::StringT strOther(str);
    const CArrayNewWatch watch;
    EXPECT_EQ(str.AllocBeforeWrite(3), 1);
    EXPECT_EQ(watch.Sizes(), Sizes{F::BlockSize(3)});
    EXPECT_EQ(F::Refs(str), 1);
    EXPECT_EQ(F::Refs(strOther), 1);
    EXPECT_EQ(F::Plain(strOther), "abcde");

    typename F::StringT strThird(strOther);
    EXPECT_EQ(strThird.AllocBeforeWrite(0), 1);
    EXPECT_TRUE(F::IsEmptyBlock(strThird));
}

TYPED_TEST(StringBlock, CopyBeforeWriteCopiesOnlyASharedBlock) {
    using F = TestFixture;
    typename F::StringT str = F::S("abc");
    const auto* const pchBlock = F::Address(str);
    str.CopyBeforeWrite();
    EXPECT_EQ(F::Address(str), pchBlock);

    const typename F::StringT strOther(str);
    const CArrayNewWatch watch;
    str.CopyBeforeWrite();
    EXPECT_EQ(watch.Sizes(), Sizes{F::BlockSize(3)});
    EXPECT_EQ(F::Plain(str), "abc");
    EXPECT_EQ(str.GetString()[3], 0);
    EXPECT_EQ(F::Address(strOther), pchBlock);
    EXPECT_EQ(F::Refs(strOther), 1);

    typename F::StringT strEmpty;
    strEmpty.CopyBeforeWrite();
    EXPECT_TRUE(F::IsEmptyBlock(strEmpty));
}

TYPED_TEST(StringBlock, CopyBeforeWriteOfASharedBlockWithoutTextGivesTheEmptyString) {
    using F = TestFixture;
    typename F::StringT str = F::S("abc");
    str.ReleaseBuffer(0);
    ASSERT_FALSE(F::IsEmptyBlock(str));
    const typename F::StringT strOther(str);
    str.CopyBeforeWrite();
    EXPECT_TRUE(F::IsEmptyBlock(str));
    EXPECT_EQ(F::Refs(strOther), 1);
}

TYPED_TEST(StringBlock, ReleaseBufferSetsLengthAndRecordedCapacity) {
    using F = TestFixture;
    struct Case {
        int nNewLength;
        int nLength;
    };
    // -2: every value below 0 means up to the terminator.
    for (const Case& c : {Case{-1, 2}, Case{-2, 2}, Case{0, 0}, Case{1, 1}, Case{4, 4}, Case{5, 5}}) {
        typename F::StringT str;
        str.AllocBuffer(5);
        const auto* const pchBlock = F::Address(str);
        auto* const pch = str.GetBuffer();
        pch[0] = 'a';
        pch[1] = 'b';
        str.ReleaseBuffer(c.nNewLength);
        EXPECT_EQ(str.GetLength(), c.nLength) << c.nNewLength;
        EXPECT_EQ(str.GetAllocLength(), c.nLength) << c.nNewLength;
        EXPECT_EQ(str.GetString()[c.nLength], 0) << c.nNewLength;
        EXPECT_EQ(F::Address(str), pchBlock) << c.nNewLength;
    }
    typename F::StringT strEmpty;
    strEmpty.ReleaseBuffer();
    strEmpty.ReleaseBuffer(0);
    EXPECT_TRUE(F::IsEmptyBlock(strEmpty));
}

TYPED_TEST(StringBlock, AppendingWithinTheBlockTerminatesTheText) {
    using F = TestFixture;
    typename F::StringT str = F::S("ab");
    auto* const pch = str.GetBuffer(6);
    std::fill(pch + 2, pch + 6, 'z');  // after the text, which does not change
    str += F::S("X");
    ASSERT_EQ(str.GetString(), pch);
    ASSERT_EQ(str.GetLength(), 3);
    EXPECT_EQ(str.GetString()[3], 0);
}

TYPED_TEST(StringBlock, ReleaseBufferCopiesASharedBlockFirst) {
    using F = TestFixture;
    typename F::StringT str = F::S("abcde");
    const typename F::StringT strOther(str);
    str.ReleaseBuffer(2);
    EXPECT_EQ(F::Plain(str), "ab");
    EXPECT_EQ(F::Plain(strOther), "abcde");
    EXPECT_EQ(strOther.GetAllocLength(), 5);
}

TYPED_TEST(StringBlock, GetBufferKeepsTheTextAndGivesRoom) {
    using F = TestFixture;
    struct Case {
        bool bShared;
        int nMinLength;
        int nAllocLength;
        bool bSameBlock;
    };
    const Case aCases[] = {
        {false, -1, 3, true}, {false, 0, 3, true}, {false, 3, 3, true}, {false, 8, 8, false},
        {true, -1, 3, false}, {true, 2, 3, false}, {true, 8, 8, false},
    };
    for (const Case& c : aCases) {
        SCOPED_TRACE(c.nMinLength);
        typename F::StringT str = F::S("abc");
        const auto* const pchBlock = F::Address(str);
        typename F::StringT strOther;
        if (c.bShared) {
            strOther = str;
        }
        auto* const pch = str.GetBuffer(c.nMinLength);
        EXPECT_EQ(pch == pchBlock, c.bSameBlock);
        EXPECT_EQ(str.GetAllocLength(), c.nAllocLength);
        EXPECT_EQ(F::Plain(str), "abc");
        EXPECT_EQ(pch[3], 0);
        EXPECT_EQ(F::Refs(str), 1);
        pch[c.nAllocLength - 1] = 'z';
        EXPECT_EQ(F::Plain(strOther), c.bShared ? "abc" : "");
    }
    typename F::StringT strEmpty;
    EXPECT_EQ(strEmpty.GetBuffer(0), TypeParam::PchNil());
    strEmpty.GetBuffer(4)[0] = 'x';
    strEmpty.ReleaseBuffer();
    EXPECT_EQ(F::Plain(strEmpty), "x");
}

TYPED_TEST(StringBlock, OnlyTheWritableConversionUnshares) {
    using F = TestFixture;
    typename F::StringT str = F::S("abc");
    const typename F::StringT strOther(str);
    const typename F::CharT* const pszRead = str;
    EXPECT_EQ(pszRead, F::Address(strOther));
    EXPECT_EQ(static_cast<const typename F::CharT*>(strOther), F::Address(strOther));
    typename F::CharT* const pszWritten = str;
    pszWritten[0] = 'X';
    EXPECT_EQ(F::Plain(str), "Xbc");
    EXPECT_EQ(F::Plain(strOther), "abc");
    typename F::StringT strThird(strOther);
    EXPECT_NE(strThird.GetBuffer(), F::Address(strOther));
}

TYPED_TEST(StringBlock, AppendingUsesExactBlocksAndRecordedRoom) {
    using F = TestFixture;
    typename F::StringT str = F::S("abc");
    const auto text = F::T("de");
    const CArrayNewWatch watch;
    str += text.c_str();
    EXPECT_EQ(watch.Sizes(), Sizes{F::BlockSize(5)});
    EXPECT_EQ(watch.FreedCount(), 0U);  // the watch began after the block of "abc"
    EXPECT_EQ(str.GetAllocLength(), 5);

    const auto* const pchBlock = str.GetBuffer(9);
    str += text.c_str();
    str.ConcatInPlace(2, text.c_str());
    EXPECT_EQ(F::Address(str), pchBlock);
    EXPECT_EQ(str.GetAllocLength(), 9);
    EXPECT_EQ(F::Plain(str), "abcdedede");
    EXPECT_EQ(str.GetString()[9], 0);
    str += text.c_str();
    EXPECT_NE(F::Address(str), pchBlock);
    EXPECT_EQ(F::Plain(str), "abcdededede");
}

TYPED_TEST(StringBlock, AppendingToASharerDoesNotChangeTheOthers) {
    using F = TestFixture;
    typename F::StringT str = F::S("abc");
    str.GetBuffer(10);
    const typename F::StringT strOther(str);
    str += F::T("d").c_str();
    EXPECT_EQ(F::Plain(str), "abcd");
    EXPECT_EQ(F::Plain(strOther), "abc");
}

TYPED_TEST(StringBlock, ConcatCopyJoinsTwoCountedTexts) {
    using F = TestFixture;
    const auto text = F::T("abcdef");
    const typename F::CharT* const pszNull = nullptr;
    struct Case {
        int nLen1;
        const typename F::CharT* pch1;
        int nLen2;
        const typename F::CharT* pch2;
        const char* pszResult;
    };
    const Case aCases[] = {
        {2, text.c_str(), 3, text.c_str() + 3, "abdef"},
        {0, text.c_str(), 1, text.c_str(), "a"},
        {-4, text.c_str(), 2, text.c_str(), "ab"},
        {2, pszNull, 2, text.c_str(), "ab"},
        {2, text.c_str(), 2, pszNull, "ab"},
        {0, pszNull, 0, pszNull, ""},
    };
    for (const Case& c : aCases) {
        typename F::StringT str = F::S("old");
        str.ConcatCopy(c.nLen1, c.pch1, c.nLen2, c.pch2);
        EXPECT_EQ(F::Plain(str), c.pszResult);
        EXPECT_EQ(str.GetAllocLength(), str.GetLength());
    }
    typename F::StringT str = F::S("abc");
    str.ConcatCopy(3, str.GetString(), 2, str.GetString() + 1);
    EXPECT_EQ(F::Plain(str), "abcbc");
}

TYPED_TEST(StringBlock, AllocCopyCopiesAPartAndAddsZeroCharacters) {
    using F = TestFixture;
    struct Case {
        int nCopyLen;
        int nCopyIndex;
        int nExtraLen;
        const char* pszCopied;
        int nZeros;
    };
    const Case aCases[] = {
        {3, 1, 0, "bcd", 0}, {3, 1, 2, "bcd", 2}, {9, 3, 1, "de", 1},
        {2, 9, 1, "", 1},    {2, -1, 0, "ab", 0}, {-1, 0, -1, "", 0},
    };
    for (const Case& c : aCases) {
        const typename F::StringT str = F::S("abcde");
        typename F::StringT strDest = F::S("old");
        str.AllocCopy(strDest, c.nCopyLen, c.nCopyIndex, c.nExtraLen);
        EXPECT_EQ(F::Plain(strDest), c.pszCopied + std::string(static_cast<std::size_t>(c.nZeros), '\0'));
    }
    typename F::StringT strSelf = F::S("abcde");
    strSelf.AllocCopy(strSelf, 3, 1, 1);
    EXPECT_EQ(F::Plain(strSelf), std::string("bcd\0", 4));
}

TYPED_TEST(StringBlock, SourcesMayBePartOfTheString) {
    using F = TestFixture;
    using String = typename F::StringT;
    struct Case {
        const char* pszName;
        void (*pfnChange)(String&);
        const char* pszResult;
    };
    const Case aCases[] = {
        {"assign all", [](String& str) { str = str.GetString(); }, "abcdef"},
        {"assign the end", [](String& str) { str = str.GetString() + 1; }, "bcdef"},
        {"assign counted", [](String& str) { str.AssignCopy(3, str.GetString() + 2); }, "cde"},
        {"append all", [](String& str) { str += str; }, "abcdefabcdef"},
        {"append the end", [](String& str) { str += str.GetString() + 4; }, "abcdefef"},
        {"append counted", [](String& str) { str.Append(str.GetString() + 1, 2); }, "abcdefbc"},
        {"append in the room",
         [](String& str) {
             str.GetBuffer(20);
             str += str.GetString() + 3;
         },
         "abcdefdef"},
        {"insert", [](String& str) { str.Insert(2, str.GetString() + 4); }, "abefcdef"},
        {"replace", [](String& str) { str.Replace(str.GetString() + 5, str.GetString()); }, "abcdeabcdef"},
        {"part of itself", [](String& str) { str = str.Mid(2, 3); }, "cde"},
        {"all of itself", [](String& str) { str = str.Left(99); }, "abcdef"},
    };
    for (const bool bShared : {false, true}) {
        for (const Case& c : aCases) {
            String str = F::S("abcdef");
            const String strOther = bShared ? str : F::S("abcdef");
            c.pfnChange(str);
            EXPECT_EQ(F::Plain(str), c.pszResult) << c.pszName;
            EXPECT_EQ(str.GetString()[str.GetLength()], 0) << c.pszName;
            EXPECT_EQ(F::Plain(strOther), "abcdef") << c.pszName;
        }
    }
}

TYPED_TEST(StringBlock, RunningOutOfMemoryThrowsAndKeepsTheStringUsable) {
    using F = TestFixture;
    using String = typename F::StringT;
    static const auto text = F::T("abcdefgh");
    struct Case {
        const char* pszName;
        void (*pfnChange)(String&);
        const char* pszLeft;
    };
    const Case aCases[] = {
        {"assignment", [](String& str) { str = text.c_str(); }, ""},
        {"append", [](String& str) { str += text.c_str(); }, "abc"},
        {"room", [](String& str) { str.GetBuffer(99); }, "abc"},
        {"join", [](String& str) { str.ConcatCopy(3, text.c_str(), 3, text.c_str()); }, "abc"},
        {"insert", [](String& str) { str.Insert(0, text.c_str()); }, ""},
    };
    for (const Case& c : aCases) {
        String str = F::S("abc");
        CArrayNewWatch::FailNext();
        EXPECT_THROW(c.pfnChange(str), std::bad_alloc) << c.pszName;
        EXPECT_EQ(F::Plain(str), c.pszLeft) << c.pszName;
    }
    CArrayNewWatch::FailNext();
    EXPECT_THROW(String{text.c_str()}, std::bad_alloc);
}

TYPED_TEST(StringBlock, TheLockHelpersWorkOnASeparateLock) {
    using F = TestFixture;
    lockid_t lock;
    F::StringT::InterLockInit(&lock);
    EXPECT_EQ(pthread_mutex_lock(&lock.lock), 0);
    EXPECT_EQ(pthread_mutex_unlock(&lock.lock), 0);
    F::StringT::InterLockRealese(&lock);

    LONG lCount = 5;
    EXPECT_EQ(F::StringT::InterlockedIncrement(&lCount), 6);
    EXPECT_EQ(F::StringT::InterlockedDecrement(&lCount), 5);
    lCount = 0;
    EXPECT_EQ(F::StringT::InterlockedDecrement(&lCount), -1);
}

}  // namespace
