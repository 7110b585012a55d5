#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <random>
#include <vector>

#include "Threads.h"
#include "VEXCompat.h"

namespace {

constexpr DWORD kNoZeroing = 0;
constexpr DWORD kAllOnes = ~DWORD{0};

class HeapTest : public testing::Test {
protected:
    BYTE* Alloc(DWORD dwFlags, DWORD dwBytes) { return static_cast<BYTE*>(HeapAlloc(m_hHeap, dwFlags, dwBytes)); }
    BYTE* ReAlloc(DWORD dwFlags, BYTE* pBlock, DWORD dwBytes) {
        return static_cast<BYTE*>(HeapReAlloc(m_hHeap, dwFlags, pBlock, dwBytes));
    }

    const HANDLE m_hHeap = GetProcessHeap();
};

bool AreAll(const BYTE* pBytes, DWORD cb, BYTE value) {
    return std::all_of(pBytes, pBytes + cb, [value](BYTE b) { return b == value; });
}

TEST_F(HeapTest, OneHeapForTheProcess) {
    EXPECT_NE(m_hHeap, nullptr);
    EXPECT_NE(m_hHeap, INVALID_HANDLE_VALUE);
    HANDLE hOther = nullptr;
    std::thread([&hOther] { hOther = GetProcessHeap(); }).join();
    EXPECT_EQ(hOther, m_hHeap);
}

TEST_F(HeapTest, SizesAreExactAndNewBytesZero) {
    for (const DWORD cb : {0UL, 1UL, 2UL, 5UL, 15UL, 16UL, 17UL, 31UL, 100UL, 4095UL, 4096UL, 4097UL, 3UL << 20}) {
        for (int nRound = 0; nRound < 2; ++nRound) {  // the second round may get the memory of the first
            BYTE* pBlock = Alloc(HEAP_ZERO_MEMORY, cb);
            ASSERT_NE(pBlock, nullptr) << cb;
            EXPECT_EQ(HeapSize(m_hHeap, 0, pBlock), cb);
            EXPECT_EQ(reinterpret_cast<std::uintptr_t>(pBlock) % alignof(std::max_align_t), 0U);
            EXPECT_TRUE(AreAll(pBlock, cb, 0)) << cb;
            std::fill_n(pBlock, cb, BYTE{0xA5});
            EXPECT_EQ(HeapFree(m_hHeap, 0, pBlock), TRUE);
        }
    }
}

TEST_F(HeapTest, WithoutTheFlagABlockHasItsExactSizeToo) {
    BYTE* pBlock = Alloc(kNoZeroing, 33);
    ASSERT_NE(pBlock, nullptr);
    EXPECT_EQ(HeapSize(m_hHeap, 0, pBlock), 33U);
    std::fill_n(pBlock, 33, BYTE{7});
    pBlock = ReAlloc(kNoZeroing, pBlock, 66);
    ASSERT_NE(pBlock, nullptr);
    EXPECT_EQ(HeapSize(m_hHeap, 0, pBlock), 66U);
    EXPECT_TRUE(AreAll(pBlock, 33, 7));
    HeapFree(m_hHeap, 0, pBlock);
}

TEST_F(HeapTest, ReallocationKeepsTheContentsAndZeroesWhatItAdds) {
    struct Step {
        DWORD cbFrom;
        DWORD cbTo;
    };
    for (const auto& [cbFrom, cbTo] : {Step{3, 5}, Step{5, 3}, Step{0, 1}, Step{1, 0}, Step{7, 7}, Step{16, 17},
                                       Step{100, 1 << 20}, Step{1 << 20, 100}, Step{0, 0}}) {
        BYTE* pBlock = Alloc(HEAP_ZERO_MEMORY, cbFrom);
        ASSERT_NE(pBlock, nullptr);
        std::fill_n(pBlock, cbFrom, BYTE{0x5A});
        pBlock = ReAlloc(HEAP_ZERO_MEMORY, pBlock, cbTo);
        ASSERT_NE(pBlock, nullptr);
        EXPECT_EQ(HeapSize(m_hHeap, 0, pBlock), cbTo);
        const DWORD cbKept = std::min(cbFrom, cbTo);
        EXPECT_TRUE(AreAll(pBlock, cbKept, 0x5A)) << cbFrom << " to " << cbTo;
        EXPECT_TRUE(AreAll(pBlock + cbKept, cbTo - cbKept, 0)) << cbFrom << " to " << cbTo;
        HeapFree(m_hHeap, 0, pBlock);
    }
}

// Bytes that one reallocation cut off must not appear again in the next.
TEST_F(HeapTest, ShrunkAndGrownAgainReadsZero) {
    BYTE* pBlock = Alloc(HEAP_ZERO_MEMORY, 24);
    ASSERT_NE(pBlock, nullptr);
    std::fill_n(pBlock, 24, BYTE{0xEE});
    pBlock = ReAlloc(HEAP_ZERO_MEMORY, pBlock, 4);
    ASSERT_NE(pBlock, nullptr);
    pBlock = ReAlloc(HEAP_ZERO_MEMORY, pBlock, 24);
    ASSERT_NE(pBlock, nullptr);
    EXPECT_TRUE(AreAll(pBlock, 4, 0xEE));
    EXPECT_TRUE(AreAll(pBlock + 4, 20, 0));
    HeapFree(m_hHeap, 0, pBlock);
}

TEST_F(HeapTest, ImpossibleSizesFailAndLeaveTheOldBlock) {
    BYTE* pBlock = Alloc(HEAP_ZERO_MEMORY, 3);
    ASSERT_NE(pBlock, nullptr);
    std::memcpy(pBlock, "abc", 3);
    for (const DWORD cb : {kAllOnes, kAllOnes - 1, kAllOnes - 15, kAllOnes - 16, kAllOnes - 17, DWORD{PTRDIFF_MAX} + 1,
                           DWORD{PTRDIFF_MAX}, DWORD{PTRDIFF_MAX} - 15, DWORD{PTRDIFF_MAX} - 16, DWORD{1} << 62}) {
        for (const DWORD dwFlags : {kNoZeroing, HEAP_ZERO_MEMORY}) {
            HeapSize(nullptr, 0, nullptr);  // another last error
            EXPECT_EQ(Alloc(dwFlags, cb), nullptr) << cb;
            EXPECT_EQ(GetLastError(), ERROR_NOT_ENOUGH_MEMORY);
            HeapSize(nullptr, 0, nullptr);
            EXPECT_EQ(ReAlloc(dwFlags, pBlock, cb), nullptr) << cb;
            EXPECT_EQ(GetLastError(), ERROR_NOT_ENOUGH_MEMORY);
        }
    }
    EXPECT_EQ(HeapSize(m_hHeap, 0, pBlock), 3U);
    EXPECT_EQ(std::memcmp(pBlock, "abc", 3), 0);
    HeapFree(m_hHeap, 0, pBlock);
}

TEST_F(HeapTest, OnlyTheProcessHeapIsAHeap) {
    BYTE* pBlock = Alloc(HEAP_ZERO_MEMORY, 3);
    int nNoHeap = 0;
    for (const HANDLE hWrong : {HANDLE{nullptr}, HANDLE{&nNoHeap}, HANDLE{INVALID_HANDLE_VALUE}, HANDLE{pBlock}}) {
        const auto expectInvalidHandle = [](bool bFailed) {
            EXPECT_TRUE(bFailed);
            EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
            HeapSize(GetProcessHeap(), 0, nullptr);  // another last error
        };
        expectInvalidHandle(HeapAlloc(hWrong, HEAP_ZERO_MEMORY, 1) == nullptr);
        expectInvalidHandle(HeapReAlloc(hWrong, HEAP_ZERO_MEMORY, pBlock, 1) == nullptr);
        expectInvalidHandle(HeapSize(hWrong, 0, pBlock) == kAllOnes);
        expectInvalidHandle(HeapFree(hWrong, 0, pBlock) == FALSE);
        expectInvalidHandle(HeapFree(hWrong, 0, nullptr) == FALSE);
    }
    EXPECT_EQ(HeapSize(m_hHeap, 0, pBlock), 3U);
    HeapFree(m_hHeap, 0, pBlock);
}

TEST_F(HeapTest, NullBlock) {
    HeapSize(nullptr, 0, nullptr);
    EXPECT_EQ(HeapSize(m_hHeap, 0, nullptr), kAllOnes);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    HeapSize(nullptr, 0, nullptr);
    EXPECT_EQ(HeapReAlloc(m_hHeap, HEAP_ZERO_MEMORY, nullptr, 5), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(HeapFree(m_hHeap, 0, nullptr), TRUE);
}

// Each thread tags its blocks with its number. They must not change.
TEST_F(HeapTest, EightThreads) {
    std::array<int, 8> wrong{};
    OnThreads(8, [this, &wrong](int nThread) {
        int& nWrong = wrong.at(static_cast<std::size_t>(nThread));
        std::mt19937 random(static_cast<unsigned>(nThread));
        struct Kept {
            BYTE* pBlock;
            DWORD cb;
        };
        std::vector<Kept> blocks;
        const auto nTag = static_cast<BYTE>(nThread + 1);
        const auto check = [&](const Kept& kept) {
            nWrong += HeapSize(m_hHeap, 0, kept.pBlock) != kept.cb || !AreAll(kept.pBlock, kept.cb, nTag);
        };
        for (int i = 0; i < 4000; ++i) {
            const DWORD cb = random() % 600;
            if (blocks.size() < 20) {
                BYTE* pBlock = Alloc(HEAP_ZERO_MEMORY, cb);
                nWrong += !AreAll(pBlock, cb, 0);
                std::fill_n(pBlock, cb, nTag);
                blocks.push_back({pBlock, cb});
                continue;
            }
            Kept& kept = blocks[random() % blocks.size()];
            check(kept);
            const DWORD cbOld = kept.cb;
            kept.pBlock = ReAlloc(HEAP_ZERO_MEMORY, kept.pBlock, cb);
            kept.cb = cb;
            if (cb > cbOld) {
                nWrong += !AreAll(kept.pBlock + cbOld, cb - cbOld, 0);
                std::fill_n(kept.pBlock + cbOld, cb - cbOld, nTag);
            }
            if (i % 3 == 0) {
                check(blocks.front());
                HeapFree(m_hHeap, 0, blocks.front().pBlock);
                blocks.erase(blocks.begin());
            }
        }
        for (const Kept& kept : blocks) {
            check(kept);
            HeapFree(m_hHeap, 0, kept.pBlock);
        }
    });
    EXPECT_THAT(wrong, testing::Each(0));
}

}  // namespace
