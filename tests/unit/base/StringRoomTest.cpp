// Writing into the counted strings: copies before writing, room in a block, appended text, and memory that runs out.
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
class StringRoom : public CStringKindTest<TKind> {};
TYPED_TEST_SUITE(StringRoom, StringKinds, StringKindNames);

TYPED_TEST(StringRoom, AllocBeforeWriteReusesAPrivateBlockThatIsLargeEnough) {
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

TYPED_TEST(StringRoom, AllocBeforeWriteDoesNotReuseASharedBlock) {
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

TYPED_TEST(StringRoom, CopyBeforeWriteCopiesOnlyASharedBlock) {
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

TYPED_TEST(StringRoom, CopyBeforeWriteOfASharedBlockWithoutTextGivesTheEmptyString) {
    using F = TestFixture;
    typename F::StringT str = F::S("abc");
    str.ReleaseBuffer(0);
    ASSERT_FALSE(F::IsEmptyBlock(str));
    const typename F::StringT strOther(str);
    str.CopyBeforeWrite();
    EXPECT_TRUE(F::IsEmptyBlock(str));
    EXPECT_EQ(F::Refs(strOther), 1);
}

TYPED_TEST(StringRoom, ReleaseBufferSetsLengthAndRecordedCapacity) {
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

TYPED_TEST(StringRoom, AppendingWithinTheBlockTerminatesTheText) {
    using F = TestFixture;
    typename F::StringT str = F::S("ab");
    auto* const pch = str.GetBuffer(6);
    std::fill(pch + 2, pch + 6, 'z');  // after the text, which does not change
    str += F::S("X");
    ASSERT_EQ(str.GetString(), pch);
    ASSERT_EQ(str.GetLength(), 3);
    EXPECT_EQ(str.GetString()[3], 0);
}

TYPED_TEST(StringRoom, ReleaseBufferCopiesASharedBlockFirst) {
    using F = TestFixture;
    typename F::StringT str = F::S("abcde");
    const typename F::StringT strOther(str);
    str.ReleaseBuffer(2);
    EXPECT_EQ(F::Plain(str), "ab");
    EXPECT_EQ(F::Plain(strOther), "abcde");
    EXPECT_EQ(strOther.GetAllocLength(), 5);
}

TYPED_TEST(StringRoom, GetBufferKeepsTheTextAndGivesRoom) {
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

TYPED_TEST(StringRoom, OnlyTheWritableConversionUnshares) {
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

TYPED_TEST(StringRoom, AppendingUsesExactBlocksAndRecordedRoom) {
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

TYPED_TEST(StringRoom, AppendingToASharerDoesNotChangeTheOthers) {
    using F = TestFixture;
    typename F::StringT str = F::S("abc");
    str.GetBuffer(10);
    const typename F::StringT strOther(str);
    str += F::T("d").c_str();
    EXPECT_EQ(F::Plain(str), "abcd");
    EXPECT_EQ(F::Plain(strOther), "abc");
}

TYPED_TEST(StringRoom, ConcatCopyJoinsTwoCountedTexts) {
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

TYPED_TEST(StringRoom, AllocCopyCopiesAPartAndAddsZeroCharacters) {
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

TYPED_TEST(StringRoom, SourcesMayBePartOfTheString) {
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

TYPED_TEST(StringRoom, RunningOutOfMemoryThrowsAndKeepsTheStringUsable) {
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

TYPED_TEST(StringRoom, TheLockHelpersWorkOnASeparateLock) {
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
