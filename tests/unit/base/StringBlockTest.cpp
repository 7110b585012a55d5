// Blocks of the counted strings: how they are allocated, shared, assigned and freed.
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

}  // namespace
