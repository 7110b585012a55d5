// How many blocks of memory a trace call allocates on the calling thread, by kind.
#include <cstdlib>
#include <map>
#include <new>

#include "LogTest.h"
#include "Scale.h"

namespace {

// The allocations of one thread.
struct Counts {
    size_t nArrays = 0;
    size_t nObjects = 0;
    size_t cbLargest = 0;

    bool operator==(const Counts&) const = default;
};

thread_local bool t_bCounting = false;
thread_local Counts t_counts;

void* Allocate(size_t cb, size_t Counts::*pnCount) {
    if (t_bCounting) {
        ++(t_counts.*pnCount);
        t_counts.cbLargest = std::max(t_counts.cbLargest, cb);
    }
    void* const p = std::malloc(cb > 0 ? cb : 1);
    if (p == nullptr) {
        throw std::bad_alloc();
    }
    return p;
}

template <typename Body>
Counts CountsOf(Body body) {
    t_counts = {};
    t_bCounting = true;
    body();
    t_bCounting = false;
    return t_counts;
}

std::ostream& operator<<(std::ostream& stream, const Counts& counts) {
    return stream << counts.nArrays << " arrays, " << counts.nObjects << " objects, the largest of " << counts.cbLargest
                  << " bytes";
}

using CostTest = LogTest;

constexpr size_t kLongMessageBuffer = 8192 * sizeof(wchar_t);

TEST_F(CostTest, TenMillionFilteredCallsAllocateNothing) {
    m_directory.Write("log.ini", "[loginfo]\nlogLevel=2\n");
    InChild([] {
        CDebugLogMgr::GetInstance();
        const int nCalls = Scaled(10'000'000);
        const Counts counts = CountsOf([&] {
            for (int i = 0; i < nCalls; ++i) {
                CDebugLogMgr::MacroHelper(L"[INFO] ", 1, L"a source file.cpp", L"Function", 7)(L"%s", L"text");
            }
        });
        EXPECT_EQ(counts, Counts{}) << counts;
    });
    EXPECT_EQ(ReadWholeFile(LogPath()), "");
}

// The first helper is made before the log knows its level.
TEST_F(CostTest, TheFirstRecordCanBeFilteredAsWell) {
    m_directory.Write("log.ini", "[loginfo]\nlogLevel=2\n");
    InChild([&] {
        CDebugLogMgr::MacroHelper helper = Place();
        helper(L"%s", L"dropped");
        const Counts counts = CountsOf([&] { helper(L"%s", L"dropped"); });
        EXPECT_EQ(counts, Counts{}) << counts;
        Place(2)(L"written");
        WaitUntilWritten(LogPath());
    });
    EXPECT_EQ(RecordsOf(LogPath()).size(), 1U);
}

TEST_F(CostTest, ARecordAllocatesTheSameEachTime) {
    InChild([&] {
        const auto trace = [] { Place()(L"%s", L"text"); };
        trace();
        const Counts counts = CountsOf(trace);
        std::cout << "A record: " << counts << '\n';
        EXPECT_EQ(counts.nArrays, 0U) << "a buffer for a long message";
        EXPECT_LT(counts.cbLargest, 1024U);
        // The helper's three texts; the format and room for its rewriting; the node and its text.
        EXPECT_LE(counts.nObjects, 3U + 2U + 2U);
        for (int i = 0; i < 1000; ++i) {
            Counts again = CountsOf(trace);
            // The record's text is the largest block: its fraction of a second has three to six digits.
            EXPECT_LT(again.cbLargest, 1024U);
            again.cbLargest = counts.cbLargest;
            ASSERT_EQ(again, counts) << again;
        }
        const std::wstring strLong(256, L'x');
        const Counts counted = CountsOf([&] { Place()(L"%s", strLong.c_str()); });
        EXPECT_EQ(counted.nArrays, 1U);
        EXPECT_EQ(counted.cbLargest, kLongMessageBuffer);
        WaitUntilWritten(LogPath());
    });
}

}  // namespace

// Not inline: a compiler that sees malloc and free there reports a mismatch with new and delete.
[[gnu::noinline]] void* operator new(std::size_t cb) {
    return Allocate(cb, &Counts::nObjects);
}
[[gnu::noinline]] void* operator new[](std::size_t cb) {
    return Allocate(cb, &Counts::nArrays);
}
[[gnu::noinline]] void operator delete(void* p) noexcept {
    std::free(p);
}
[[gnu::noinline]] void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}
[[gnu::noinline]] void operator delete[](void* p) noexcept {
    std::free(p);
}
[[gnu::noinline]] void operator delete[](void* p, std::size_t) noexcept {
    std::free(p);
}
