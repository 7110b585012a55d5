// The strings and the buffer with toolkits that behave differently or fail.
#include <climits>
#include <clocale>
#include <csignal>

#include "ArrayNew.h"
#include "SmartBuffer.h"
#include "StringKinds.h"
#include "ToolkitDouble.h"

namespace {

class ToolkitBehaviour : public ::testing::Test {
protected:
    ToolkitBehaviour() {
        ResetDouble();
        std::setlocale(LC_ALL, "C.UTF-8");
    }
    ~ToolkitBehaviour() override {
        ResetDouble();
        std::setlocale(LC_ALL, "C");
    }
};

using ToolkitBehaviourDeathTest = ToolkitBehaviour;

TEST_F(ToolkitBehaviour, TheTerminatorOfAWideTextStaysInsideItsBlock) {
    for (const bool bCountsTerminator : {true, false}) {
        for (const char* pszText : {"a", "four", "\xe2\x82\xac\xe2\x82\xac"}) {
            SCOPED_TRACE(pszText);
            Double().bCountsTerminator = bCountsTerminator;
            const int nLength = static_cast<int>(std::mbstowcs(nullptr, pszText, 0));
            const CArrayNewWatch watch;
            const CString str(pszText);
            EXPECT_EQ(watch.Sizes(), (std::vector<std::size_t>{56 + (static_cast<std::size_t>(nLength) + 1) * 4}));
            EXPECT_EQ(str.GetLength(), nLength);
            EXPECT_EQ(str.GetString()[nLength], L'\0');
            EXPECT_EQ(CStringA(str).Compare(pszText), 0);
        }
    }
}

// The double's memcpy_x aborts on an overlap.
TEST_F(ToolkitBehaviour, NoOverlappingCopyReachesTheToolkit) {
    CString strWide(L"abcdef");
    strWide = strWide.GetString() + 2;
    EXPECT_EQ(strWide.Compare(L"cdef"), 0);
    strWide.GetBuffer(20);
    strWide.ConcatInPlace(2, strWide.GetString() + 2);
    EXPECT_EQ(strWide.Compare(L"cdefef"), 0);
    CStringA strNarrow("abcdef");
    strNarrow = strNarrow.GetString() + 1;
    strNarrow.Insert(0, strNarrow.GetString() + 3);
    EXPECT_EQ(strNarrow.Compare("efbcdef"), 0);
}

// The bytes after the room must not change. This shows an overrun without a sanitizer, too.
TEST_F(ToolkitBehaviour, TheConvertersDoNotWriteAfterTheirRoom) {
    for (const bool bCountsTerminator : {true, false}) {
        Double().bCountsTerminator = bCountsTerminator;
        wchar_t szWide[6];
        std::wmemset(szWide, L'#', 6);
        EXPECT_EQ(CString::tchar_mbstowcsz(szWide, "four", 5), bCountsTerminator ? 5 : 4);
        EXPECT_STREQ(szWide, L"four");
        EXPECT_EQ(szWide[5], L'#');
        // In a text that fills the room, the terminator replaces the last character.
        std::wmemset(szWide, L'#', 6);
        Double().nForcedResult = 5;
        EXPECT_EQ(CString::tchar_mbstowcsz(szWide, "fours", 5), 5);
        EXPECT_EQ(szWide[4], L'\0');
        EXPECT_EQ(szWide[5], L'#');
        Double().nForcedResult = 0;

        char szNarrow[6];
        std::memset(szNarrow, '#', 6);
        EXPECT_EQ(CStringA::char_wcstombsz(szNarrow, L"four", 4), 4);
        EXPECT_STREQ(szNarrow, "four");
        EXPECT_EQ(szNarrow[5], '#');
    }
}

TEST_F(ToolkitBehaviour, TheConvertersPassTheseArguments) {
    wchar_t szWide[8];
    CString::tchar_mbstowcsz(szWide, "four", 5);
    EXPECT_EQ(Double().uCodePage, 0U);
    EXPECT_EQ(Double().dwFlags, 0U);
    EXPECT_EQ(Double().nSourceLength, -1);
    EXPECT_EQ(Double().nRoom, 6);
    char szNarrow[8];
    CStringA::char_wcstombsz(szNarrow, L"four", 5);
    EXPECT_EQ(Double().uCodePage, 0U);
    EXPECT_EQ(Double().dwFlags, 0U);
    EXPECT_EQ(Double().nSourceLength, -1);
    EXPECT_EQ(Double().nRoom, 5);
    EXPECT_FALSE(Double().bDefaultsGiven);

    const CString strWide(
        "\xe2\x82\xac"
        "a");
    EXPECT_EQ(Double().nRoom, 4);
    const CStringA strNarrow(
        L"\u20ac"
        L"a");
    EXPECT_EQ(Double().nRoom, 4);
}

TEST_F(ToolkitBehaviour, AConversionThatStopsEarlyOrFailsShortensTheText) {
    Double().bWritesHalf = true;
    EXPECT_STREQ(CString("abcd").GetString(), L"ab");
    EXPECT_EQ(CString("abcd").GetAllocLength(), 2);
    EXPECT_STREQ(CStringA(L"abcd").GetString(), "ab");
    EXPECT_EQ(CStringA(L"abcd").GetAllocLength(), 2);
    Double().bWritesHalf = false;
    for (const int nResult : {-1, -5}) {
        Double().nForcedResult = nResult;
        EXPECT_TRUE(CString("abcd").IsEmpty());
        EXPECT_TRUE(CStringA(L"abcd").IsEmpty());
    }
    Double().nForcedResult = 3;
    EXPECT_EQ(CString::tchar_mbstowcsz(nullptr, "abc", 0), 3);
    EXPECT_EQ(CStringA::char_wcstombsz(nullptr, L"abc", 0), 3);
}

TEST_F(ToolkitBehaviourDeathTest, MoreCharactersThanTheRoomIsAnAssertion) {
    Double().nForcedResult = 6;
    const std::string strWide =
        "BaseInclude/VEXCstring\\.h:1664: static int CString::tchar_mbstowcsz\\(wchar_t\\*, const char\\*, size_t\\): "
        "Assertion `wcstr == NULL \\|\\| result <= \\(int\\)count' failed\\.\n";
    const std::string strNarrow =
        "BaseInclude/VEXCstring\\.h:3281: static int CStringA::char_wcstombsz\\(char\\*, const wchar_t\\*, size_t\\): "
        "Assertion `mbstr == NULL \\|\\| result <= \\(int\\)count' failed\\.\n";
    wchar_t szWide[8];
    char szNarrow[8];
    EXPECT_EXIT(CString::tchar_mbstowcsz(szWide, "abc", 5), ::testing::KilledBySignal(SIGABRT), strWide);
    EXPECT_EXIT(CStringA::char_mbstowcsz(szWide, "abc", 5), ::testing::KilledBySignal(SIGABRT), strWide);
    EXPECT_EXIT(CString("four"), ::testing::KilledBySignal(SIGABRT), strWide);
    EXPECT_EXIT(CStringA::char_wcstombsz(szNarrow, L"abc", 5), ::testing::KilledBySignal(SIGABRT), strNarrow);
    EXPECT_EXIT(CString::tchar_wcstombsz(szNarrow, L"abc", 5), ::testing::KilledBySignal(SIGABRT), strNarrow);
    EXPECT_EXIT(CStringA(L"four"), ::testing::KilledBySignal(SIGABRT), strNarrow);
    Double().nForcedResult = 5;
    EXPECT_EQ(CString::tchar_mbstowcsz(szWide, "abc", 5), 5);
    EXPECT_EQ(CStringA::char_wcstombsz(szNarrow, L"abc", 5), 5);
}

TEST_F(ToolkitBehaviourDeathTest, AssigningATextAsLongAsAnIntIsAnAssertion) {
    CString str(L"abc");
    Double().nForcedLength = INT_MAX;
    EXPECT_EXIT(str = L"abc", ::testing::KilledBySignal(SIGABRT),
                "BaseInclude/VEXCstring\\.h:1386: BOOL CString::AllocBuffer\\(int\\): "
                "Assertion `nLen <= INT_MAX - 1' failed\\.\n");
    Double().nForcedLength = -1;
    str = L"abc";
    EXPECT_TRUE(str.IsEmpty());
}

// ---- Heap ----

std::string Calls() {
    std::string strCalls;
    for (const ToolkitDouble::HeapCall& call : Double().heapCalls) {
        EXPECT_TRUE(call.bProcessHeap);
        EXPECT_EQ(call.dwFlags, call.chCall == 'A' || call.chCall == 'R' ? 8U : 0U) << call.chCall;
        strCalls += call.chCall;
    }
    Double().heapCalls.clear();
    return strCalls;
}

TEST_F(ToolkitBehaviour, EveryHeapCallIsOnTheProcessHeapWithItsFlags) {
    {
        CSmartBuffer buffer;
        EXPECT_EQ(Calls(), "");
        buffer.Alloc(3);
        EXPECT_EQ(Calls(), "A");
        buffer.ReAlloc(5);
        EXPECT_EQ(Calls(), "R");
        buffer.GetSize();
        EXPECT_EQ(Calls(), "S");
        buffer.Alloc(2);
        EXPECT_EQ(Calls(), "FA");
        buffer.AppendBuffer("abc", 3);
        EXPECT_EQ(Calls(), "SRS");
        buffer.SetBuffer("ab", 2);
        EXPECT_EQ(Calls(), "SR");
        const CSmartBuffer copy(buffer);
        EXPECT_EQ(Calls(), "SA");
        buffer.Free();
        buffer.Free();
        EXPECT_EQ(Calls(), "F");
    }
    EXPECT_EQ(Calls(), "F");
    EXPECT_EQ(Double().LiveBlocks(), 0U);
}

// The double moves every reallocated block: reading the source after that would read freed memory.
TEST_F(ToolkitBehaviour, OwnBytesSurviveAMovingReallocation) {
    CSmartBuffer buffer("abcde", 5);
    buffer.AppendBuffer(buffer.GetBytes() + 1, 3);
    buffer.AppendBuffer(buffer.GetAddress(), buffer.GetSize());
    EXPECT_EQ(std::memcmp(buffer, "abcdebcdabcdebcd", 16), 0);
    buffer.SetBuffer(buffer.GetBytes() + 2, 4);
    EXPECT_EQ(std::memcmp(buffer, "cdeb", 4), 0);
    // Another source at the end of the block.
    buffer.SetBuffer("ab", 2);
    buffer.AppendBuffer(buffer.GetBytes() + 1, 1);
    EXPECT_EQ(std::memcmp(buffer, "abb", 3), 0);
}

TEST_F(ToolkitBehaviour, CopyingOutNeedsADestinationAtLeastTheBuffersLengthAway) {
    Double().dwMargin = 16;
    const CSmartBuffer buffer("abcde", 5);
    for (const int nDistance : {-16, -6, -5, -4, 0, 4, 5, 6, 16}) {
        BYTE* const pbDestination = buffer.GetBytes() + nDistance;
        const bool bAccepted = nDistance <= -5 || nDistance >= 5;
        EXPECT_EQ(buffer.GetBuffer(pbDestination, 100), bAccepted ? 5U : 0U) << nDistance;
        EXPECT_EQ(std::memcmp(buffer, "abcde", 5), 0) << nDistance;
        if (bAccepted) {
            EXPECT_EQ(std::memcmp(pbDestination, "abcde", 5), 0) << nDistance;
        }
    }
}

TEST_F(ToolkitBehaviour, AFailedAllocationLeavesTheBufferEmpty) {
    CSmartBuffer buffer("abc", 3);
    Double().nAllocationsLeft = 0;
    EXPECT_EQ(buffer.Alloc(5), nullptr);
    EXPECT_EQ(buffer.GetAddress(), nullptr);
    EXPECT_EQ(buffer.GetSize(), 0U);
    EXPECT_EQ(Double().LiveBlocks(), 0U);
    EXPECT_EQ(buffer.AppendBuffer("abc", 3), nullptr);
    EXPECT_EQ(buffer.SetBuffer("abc", 3), nullptr);
    EXPECT_EQ(buffer.ReAlloc(3), nullptr);
    EXPECT_EQ(CSmartBuffer("abc", 3).GetAddress(), nullptr);
    EXPECT_EQ(CSmartBuffer(DWORD{3}).GetAddress(), nullptr);
    Double().nAllocationsLeft = 1;
    EXPECT_NE(buffer.SetBuffer("abc", 3), nullptr);
}

TEST_F(ToolkitBehaviour, AFailedReallocationLosesTheBlock) {
    struct Case {
        const char* pszName;
        void* (*pfnGrow)(CSmartBuffer&);
    };
    const Case aCases[] = {
        {"ReAlloc", [](CSmartBuffer& buffer) { return buffer.ReAlloc(9); }},
        {"AppendBuffer", [](CSmartBuffer& buffer) { return buffer.AppendBuffer("x", 1); }},
        {"AppendBuffer of itself", [](CSmartBuffer& buffer) { return buffer.AppendBuffer(buffer.GetBytes() + 1, 2); }},
        {"SetBuffer", [](CSmartBuffer& buffer) { return buffer.SetBuffer("abcdef", 6); }},
        {"SetBuffer of itself", [](CSmartBuffer& buffer) { return buffer.SetBuffer(buffer.GetBytes() + 1, 2); }},
        {"a sum that does not fit", [](CSmartBuffer& buffer) { return buffer.AppendBuffer("x", ~DWORD{0}); }},
    };
    for (const Case& c : aCases) {
        SCOPED_TRACE(c.pszName);
        {
            CSmartBuffer buffer("abc", 3);
            Double().nAllocationsLeft = 0;
            EXPECT_EQ(c.pfnGrow(buffer), nullptr);
            EXPECT_EQ(buffer.GetAddress(), nullptr);
            EXPECT_EQ(buffer.GetSize(), 0U);
        }
        EXPECT_EQ(Double().LiveBlocks(), 1U);
        ResetDouble();
    }
    // Too much for every heap.
    for (const DWORD dwTooMuch :
         {~DWORD{0} - 2, ~DWORD{0} - 1, ~DWORD{0}}) {  // plus three, these would wrap to 0, 1 and 2
        CSmartBuffer buffer("abc", 3);
        EXPECT_EQ(buffer.AppendBuffer("x", dwTooMuch), nullptr) << dwTooMuch;
        EXPECT_EQ(buffer.GetAddress(), nullptr) << dwTooMuch;
    }
}

TEST_F(ToolkitBehaviour, ACopyIsEmptyWhenItsAllocationFails) {
    const CSmartBuffer buffer("abc", 3);
    Double().nAllocationsLeft = 0;
    const CSmartBuffer copy(buffer);
    EXPECT_EQ(copy.GetAddress(), nullptr);
    EXPECT_EQ(buffer.GetSize(), 3U);
    EXPECT_EQ((buffer + buffer).GetAddress(), nullptr);
    EXPECT_EQ(CString(L"abc").AllocSysString(), nullptr);
    EXPECT_EQ(CStringA("abc").AllocSysString(), nullptr);
}

}  // namespace
