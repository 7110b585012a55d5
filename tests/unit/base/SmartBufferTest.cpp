// The byte buffer on the heap of the process.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "SmartBuffer.h"

namespace {

CSmartBuffer Buffer(std::string_view bytes) {
    return CSmartBuffer(bytes.data(), bytes.size());
}

std::string Bytes(const CSmartBuffer& buffer) {
    return buffer.GetSize() == 0 ? std::string() : std::string(static_cast<char*>(buffer), buffer.GetSize());
}

TEST(SmartBuffer, ANewBufferIsEmpty) {
    const CSmartBuffer buffer;
    char szOut[] = "abc";
    EXPECT_EQ(buffer.GetSize(), 0U);
    EXPECT_EQ(buffer.GetAddress(), nullptr);
    EXPECT_EQ(buffer.GetBytes(), nullptr);
    EXPECT_EQ(buffer.GetBuffer(szOut, 3), 0U);
    EXPECT_STREQ(szOut, "abc");
}

TEST(SmartBuffer, AllocDiscardsAndZeroes) {
    void* pResult = nullptr;
    CSmartBuffer buffer = Buffer("abcdef");
    pResult = buffer.Alloc(10);
    EXPECT_EQ(pResult, buffer.GetAddress());
    EXPECT_NE(pResult, nullptr);
    EXPECT_EQ(Bytes(buffer), std::string(10, '\0'));
    EXPECT_EQ(buffer.Alloc(0), nullptr);
    EXPECT_EQ(buffer.GetAddress(), nullptr);
    EXPECT_EQ(CSmartBuffer(DWORD{4}).GetSize(), 4U);
    EXPECT_EQ(Bytes(CSmartBuffer(DWORD{4})), std::string(4, '\0'));
    EXPECT_EQ(CSmartBuffer(DWORD{0}).GetAddress(), nullptr);
}

TEST(SmartBuffer, ReAllocKeepsAndZeroes) {
    void* pResult = nullptr;
    CSmartBuffer buffer;
    pResult = buffer.ReAlloc(2);
    EXPECT_EQ(pResult, buffer.GetAddress());
    EXPECT_NE(pResult, nullptr);
    EXPECT_EQ(Bytes(buffer), std::string(2, '\0'));
    buffer = Buffer("abc");
    pResult = buffer.ReAlloc(5);
    EXPECT_EQ(pResult, buffer.GetAddress());
    EXPECT_NE(pResult, nullptr);
    EXPECT_EQ(Bytes(buffer), std::string("abc\0\0", 5));
    pResult = buffer.ReAlloc(2);
    EXPECT_EQ(pResult, buffer.GetAddress());
    EXPECT_NE(pResult, nullptr);
    EXPECT_EQ(Bytes(buffer), "ab");
    EXPECT_EQ(buffer.ReAlloc(0), nullptr);
    EXPECT_EQ(buffer.GetSize(), 0U);
    EXPECT_EQ(buffer.ReAlloc(0), nullptr);
    buffer.Free();
    EXPECT_EQ(buffer.GetAddress(), nullptr);
}

TEST(SmartBuffer, Append) {
    void* pResult = nullptr;
    CSmartBuffer buffer;
    EXPECT_EQ(buffer.AppendBuffer(nullptr, 5), nullptr);
    EXPECT_EQ(buffer.AppendBuffer("x", 0), nullptr);
    pResult = buffer.AppendBuffer("abc", 3);
    EXPECT_EQ(pResult, buffer.GetAddress());
    EXPECT_NE(pResult, nullptr);
    EXPECT_EQ(Bytes(buffer), "abc");
    void* const pBlock = buffer.GetAddress();
    EXPECT_EQ(buffer.AppendBuffer(nullptr, 5), pBlock);
    EXPECT_EQ(buffer.AppendBuffer("x", 0), pBlock);
    EXPECT_EQ(Bytes(buffer), "abc");
    pResult = buffer.AppendBuffer("de", 2);
    EXPECT_EQ(pResult, buffer.GetAddress());
    EXPECT_NE(pResult, nullptr);
    EXPECT_EQ(Bytes(buffer), "abcde");
}

TEST(SmartBuffer, Set) {
    void* pResult = nullptr;
    CSmartBuffer buffer = Buffer("abcde");
    void* const pBlock = buffer.GetAddress();
    EXPECT_EQ(buffer.SetBuffer(pBlock, 5), pBlock);
    EXPECT_EQ(Bytes(buffer), "abcde");
    pResult = buffer.SetBuffer("xyz", 3);
    EXPECT_EQ(pResult, buffer.GetAddress());
    EXPECT_NE(pResult, nullptr);
    EXPECT_EQ(Bytes(buffer), "xyz");
    pResult = buffer.SetBuffer("longer", 6);
    EXPECT_EQ(pResult, buffer.GetAddress());
    EXPECT_NE(pResult, nullptr);
    EXPECT_EQ(Bytes(buffer), "longer");
    pResult = buffer.SetBuffer(nullptr, 2);
    EXPECT_EQ(pResult, buffer.GetAddress());
    EXPECT_NE(pResult, nullptr);
    EXPECT_EQ(Bytes(buffer), "lo");
    EXPECT_EQ(buffer.SetBuffer("x", 0), nullptr);
    EXPECT_EQ(buffer.GetAddress(), nullptr);
    EXPECT_EQ(buffer.SetBuffer(nullptr, 0), nullptr);
}

TEST(SmartBuffer, SourcesMayBePartOfTheBuffer) {
    // Long enough that a reallocation has to move the block.
    constexpr std::size_t LONG_PART = 100000;
    const std::string strLong = std::string(LONG_PART, 'a') + std::string(LONG_PART, 'b') + "c";
    struct Case {
        const char* pszName;
        std::string strBefore;
        DWORD dwOffset;
        DWORD dwSize;
        std::string strAppended;
        std::string strSet;
    };
    const Case aCases[] = {
        {"all", "abcde", 0, 5, "abcdeabcde", "abcde"},
        {"front", "abcde", 0, 2, "abcdeab", "ab"},
        {"middle", "abcde", 1, 3, "abcdebcd", "bcd"},
        {"end", "abcde", 4, 1, "abcdee", "e"},
        {"nothing", "abcde", 2, 0, "abcde", ""},
        {"beyond the end", "abcde", 3, 4, std::string("abcdede\0\0", 9).replace(7, 2, "de"), std::string("de\0\0", 4)},
        {"beyond the end, growing", "abcde", 3, 7, "", std::string("de\0\0\0\0\0", 7)},
        {"long", strLong, LONG_PART, LONG_PART + 1, strLong + strLong.substr(LONG_PART), strLong.substr(LONG_PART)},
    };
    for (const Case& c : aCases) {
        SCOPED_TRACE(c.pszName);
        CSmartBuffer buffer = Buffer(c.strBefore);
        if (c.dwOffset + c.dwSize <= c.strBefore.size()) {
            buffer.AppendBuffer(buffer.GetBytes() + c.dwOffset, c.dwSize);
            EXPECT_EQ(Bytes(buffer), c.strAppended);
        }
        buffer = Buffer(c.strBefore);
        buffer.SetBuffer(buffer.GetBytes() + c.dwOffset, c.dwSize);
        EXPECT_EQ(Bytes(buffer), c.strSet);
    }
}

// Each reallocation gives the buffer another block and overwrites the old one.
class CMovingBuffer : public CSmartBuffer {
public:
    void* ReAlloc(DWORD dwSize) override {
        const CSmartBuffer before(*this);
        std::memset(GetBytes(), 0xEE, GetSize());
        // These bytes take the place of the old block, so that the new block has another address.
        Free();
        m_inItsPlace.push_back(Buffer(std::string(before.GetSize(), '\xEE')));
        Alloc(dwSize);
        before.GetBuffer(GetBytes(), dwSize);
        return GetAddress();
    }

private:
    std::vector<CSmartBuffer> m_inItsPlace;
};

TEST(SmartBuffer, AppendingItsOwnBytesWhenTheBlockMoves) {
    for (const DWORD dwOffset : {0U, 1U, 4U}) {
        CMovingBuffer buffer;
        buffer.CSmartBuffer::Alloc(5);
        std::memcpy(buffer.GetBytes(), "abcde", 5);
        buffer.AppendBuffer(buffer.GetBytes() + dwOffset, 5 - dwOffset);
        EXPECT_EQ(Bytes(buffer), "abcde" + std::string("abcde").substr(dwOffset)) << dwOffset;
    }
}

TEST(SmartBuffer, CopyingOutCopiesTheSmallerSize) {
    const CSmartBuffer buffer = Buffer("abcde");
    const std::pair<DWORD, const char*> aCases[] = {{0, ""}, {2, "ab"}, {4, "abcd"}, {5, "abcde"}, {100, "abcde"}};
    for (const auto& [dwSize, pszCopied] : aCases) {
        char szOut[101] = {};
        EXPECT_EQ(buffer.GetBuffer(szOut, dwSize), std::strlen(pszCopied)) << dwSize;
        EXPECT_STREQ(szOut, pszCopied) << dwSize;
    }
    EXPECT_EQ(buffer.GetBuffer(nullptr, 5), 0U);
}

TEST(SmartBuffer, CopyingOutRefusesANearDestination) {
    const CSmartBuffer buffer = Buffer("abcde");
    for (const int nDistance : {-4, -1, 0, 1, 4}) {
        BYTE* const pNear = reinterpret_cast<BYTE*>(reinterpret_cast<std::uintptr_t>(buffer.GetBytes()) +
                                                    static_cast<std::uintptr_t>(nDistance));
        EXPECT_EQ(buffer.GetBuffer(pNear, 1), 0U) << nDistance;
    }
    EXPECT_EQ(Bytes(buffer), "abcde");
}

TEST(SmartBuffer, CopiesAreIndependent) {
    CSmartBuffer buffer = Buffer("abc");
    const CSmartBuffer copy(buffer);
    CSmartBuffer assigned = Buffer("old");
    assigned = buffer;
    buffer.GetBytes()[0] = 'X';
    EXPECT_EQ(Bytes(buffer), "Xbc");
    EXPECT_EQ(Bytes(copy), "abc");
    EXPECT_EQ(Bytes(assigned), "abc");

    const CSmartBuffer& self = assigned;
    void* const pBlock = assigned.GetAddress();
    assigned = self;
    EXPECT_EQ(assigned.GetAddress(), pBlock);
    EXPECT_EQ(Bytes(assigned), "abc");

    const CSmartBuffer empty;
    EXPECT_EQ(CSmartBuffer(empty).GetAddress(), nullptr);
    assigned = empty;
    EXPECT_EQ(assigned.GetAddress(), nullptr);
}

TEST(SmartBuffer, JoiningAndComparing) {
    CSmartBuffer buffer = Buffer("abc");
    const CSmartBuffer empty;
    buffer += Buffer("de");
    EXPECT_EQ(Bytes(buffer), "abcde");
    buffer += empty;
    EXPECT_EQ(Bytes(buffer), "abcde");
    const CSmartBuffer& self = buffer;
    buffer += self;
    EXPECT_EQ(Bytes(buffer), "abcdeabcde");
    EXPECT_EQ(Bytes(Buffer("ab") + Buffer("cd")), "abcd");
    EXPECT_EQ(Bytes(empty + Buffer("cd")), "cd");
    EXPECT_EQ(Bytes(Buffer("ab") + empty), "ab");
    EXPECT_EQ((empty + empty).GetAddress(), nullptr);

    const struct {
        const char* pszLeft;
        const char* pszRight;
        bool bEqual;
    } aCases[] = {{"abc", "abc", true}, {"abc", "abd", false}, {"abc", "ab", false}, {"", "", true}, {"", "a", false}};
    for (const auto& c : aCases) {
        EXPECT_EQ(Buffer(c.pszLeft) == Buffer(c.pszRight), c.bEqual) << c.pszLeft << c.pszRight;
        EXPECT_EQ(Buffer(c.pszLeft) != Buffer(c.pszRight), !c.bEqual) << c.pszLeft << c.pszRight;
    }
}

TEST(SmartBuffer, Conversions) {
    const CSmartBuffer buffer = Buffer("abc");
    EXPECT_EQ(static_cast<void*>(buffer), buffer.GetAddress());
    EXPECT_EQ(static_cast<BYTE*>(buffer), buffer.GetBytes());
    EXPECT_EQ(static_cast<char*>(buffer), static_cast<char*>(buffer.GetAddress()));
}

// ---- The virtual table ----

// The slot of a virtual member function, as the Itanium C++ ABI encodes it in a pointer to member.
template <typename TMember>
std::ptrdiff_t Slot(TMember pfnMember) {
    static_assert(sizeof pfnMember == 2 * sizeof(std::ptrdiff_t));
    std::ptrdiff_t aWords[2];
    std::memcpy(aWords, &pfnMember, sizeof pfnMember);
    return (aWords[0] - 1) / static_cast<std::ptrdiff_t>(sizeof(void*));
}

TEST(SmartBuffer, SlotsOfTheVirtualTable) {
    EXPECT_EQ(Slot(&IBuffer::Alloc), 0);
    EXPECT_EQ(Slot(&IBuffer::ReAlloc), 1);
    EXPECT_EQ(Slot(&IBuffer::Free), 2);
    EXPECT_EQ(Slot(&IBuffer::AppendBuffer), 3);
    EXPECT_EQ(Slot(&IBuffer::SetBuffer), 4);
    EXPECT_EQ(Slot(static_cast<DWORD (IBuffer::*)(void*, DWORD) const>(&IBuffer::GetBuffer)), 5);
    EXPECT_EQ(Slot(&IBuffer::GetSize), 6);
    EXPECT_EQ(Slot(&IBuffer::GetAddress), 7);
    EXPECT_EQ(Slot(&IBuffer::GetBytes), 8);
    EXPECT_FALSE(std::has_virtual_destructor_v<IBuffer>);
    EXPECT_TRUE(std::has_virtual_destructor_v<CSmartBuffer>);
    EXPECT_TRUE(std::is_copy_assignable_v<CSmartBuffer>);

    // The two destructors follow: slot 9 destroys the object and keeps its storage.
    alignas(CSmartBuffer) BYTE storage[sizeof(CSmartBuffer)];
    auto* const pBuffer = ::new (static_cast<void*>(storage)) CSmartBuffer(DWORD{4});
    using Destroy = void (*)(CSmartBuffer*);
    Destroy* pTable = nullptr;
    std::memcpy(&pTable, storage, sizeof pTable);
    pTable[9](pBuffer);
}

// Records which operations the others call.
class CRecordingBuffer : public CSmartBuffer {
public:
    void* Alloc(DWORD dwSize) override {
        m_calls.push_back("Alloc");
        return CSmartBuffer::Alloc(dwSize);
    }
    void* ReAlloc(DWORD dwSize) override {
        m_calls.push_back("ReAlloc");
        return CSmartBuffer::ReAlloc(dwSize);
    }
    void Free() override {
        m_calls.push_back("Free");
        CSmartBuffer::Free();
    }
    DWORD GetSize() const override {
        m_calls.push_back("GetSize");
        return m_bLying ? 0 : CSmartBuffer::GetSize();
    }

    bool Called(const char* pszName) const {
        return std::find(m_calls.begin(), m_calls.end(), pszName) != m_calls.end();
    }

    mutable std::vector<std::string> m_calls;
    bool m_bLying = false;
};

TEST(SmartBuffer, OperationsCallEachOtherThroughTheTable) {
    struct Case {
        const char* pszName;
        void (*pfnCall)(CRecordingBuffer&);
        std::vector<const char*> called;
    };
    static char s_szOut[8];
    const Case aCases[] = {
        {"Alloc", [](CRecordingBuffer& b) { b.CSmartBuffer::Alloc(1); }, {"Free"}},
        {"ReAlloc of nothing",
         [](CRecordingBuffer& b) {
             b.Free();
             b.m_calls.clear();
             b.CSmartBuffer::ReAlloc(1);
         },
         {"Alloc", "Free"}},
        {"ReAlloc to nothing", [](CRecordingBuffer& b) { b.CSmartBuffer::ReAlloc(0); }, {"Free"}},
        {"AppendBuffer", [](CRecordingBuffer& b) { b.AppendBuffer("x", 1); }, {"GetSize", "ReAlloc"}},
        {"SetBuffer", [](CRecordingBuffer& b) { b.SetBuffer("x", 1); }, {"GetSize", "ReAlloc"}},
        {"GetBuffer", [](CRecordingBuffer& b) { b.GetBuffer(s_szOut, 8); }, {"GetSize"}},
    };
    for (const Case& c : aCases) {
        CRecordingBuffer buffer;
        buffer.SetBuffer("abc", 3);
        buffer.m_calls.clear();
        c.pfnCall(buffer);
        for (const char* pszCalled : c.called) {
            EXPECT_TRUE(buffer.Called(pszCalled)) << c.pszName << " should call " << pszCalled;
        }
    }
}

// The block is larger than the buffer's size, so a test may write after the buffer's end.
class CShortBuffer : public CSmartBuffer {
public:
    DWORD GetSize() const override { return CSmartBuffer::GetSize() / 2; }
};

TEST(SmartBuffer, CopyingOutAcceptsADestinationRightAfterTheBytes) {
    CShortBuffer buffer;
    buffer.Alloc(8);
    std::memcpy(buffer.GetBytes(), "abcd1234", 8);
    EXPECT_EQ(buffer.GetBuffer(buffer.GetBytes() + 3, 4), 0U);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(buffer.GetBytes()), 8), "abcd1234");
    EXPECT_EQ(buffer.GetBuffer(buffer.GetBytes() + 4, 4), 4U);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(buffer.GetBytes()), 8), "abcdabcd");
}

TEST(SmartBuffer, ASizeOfZeroStopsCopies) {
    CRecordingBuffer buffer;
    buffer.SetBuffer("abc", 3);
    buffer.m_bLying = true;
    char szOut[4] = {};
    EXPECT_EQ(buffer.GetBuffer(szOut, 3), 0U);
    EXPECT_NE(buffer.AppendBuffer("de", 2), nullptr);
    buffer.m_bLying = false;
    EXPECT_EQ(buffer.GetSize(), 2U);
}

}  // namespace
