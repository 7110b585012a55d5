// Texts that are too long for an int: the calls fail and do not wrap. The texts are a few pages, mapped many times.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <stdexcept>

#include "ScopedLocale.h"
#include "VEXCompat.h"

namespace {

// A text of at least nMinimum units and a terminator.
template <typename Char>
class RepeatedText {
public:
    RepeatedText(Char ch, size_t nMinimum) {
        const int nDescriptor = memfd_create("text", MFD_CLOEXEC);
        const size_t nBlocks = nMinimum * sizeof(Char) / kBlock + 1;
        m_cb = nBlocks * kBlock + kBlock;  // the last block stays zero
        m_pText = mmap(nullptr, m_cb, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (nDescriptor < 0 || m_pText == MAP_FAILED || ftruncate(nDescriptor, kBlock) != 0) {
            throw std::runtime_error("no memory to map");
        }
        void* pBlock = mmap(nullptr, kBlock, PROT_READ | PROT_WRITE, MAP_SHARED, nDescriptor, 0);
        std::fill_n(static_cast<Char*>(pBlock), kBlock / sizeof(Char), ch);
        munmap(pBlock, kBlock);
        for (size_t i = 0; i < nBlocks; ++i) {
            if (mmap(static_cast<char*>(m_pText) + i * kBlock, kBlock, PROT_READ, MAP_SHARED | MAP_FIXED, nDescriptor,
                     0) == MAP_FAILED) {
                throw std::runtime_error("no memory to map");
            }
        }
        close(nDescriptor);
    }
    ~RepeatedText() { munmap(m_pText, m_cb); }
    RepeatedText(const RepeatedText&) = delete;
    RepeatedText& operator=(const RepeatedText&) = delete;

    const Char* Text() const { return static_cast<const Char*>(m_pText); }

private:
    static constexpr size_t kBlock = size_t{64} << 20;

    void* m_pText;
    size_t m_cb;
};

constexpr size_t kTooMany = size_t{1} << 31;

class HugeText : public testing::Test {
protected:
    void SetUp() override {
#ifdef __SANITIZE_THREAD__
        GTEST_SKIP() << "ThreadSanitizer keeps several bytes for each byte read; the other builds run this";
#endif
    }
    const ScopedLocale m_locale{"C.UTF-8"};
};

// Each direction is tested with one code page only: both have the same rules for lengths, and reading so much is slow.
TEST_F(HugeText, NarrowToWide) {
    const RepeatedText<char> text('a', kTooMany);
    EXPECT_EQ(MultiByteToWideChar(CP_UTF8, 0, text.Text(), -1, nullptr, 0), 0);
    EXPECT_EQ(GetLastError(), ERROR_ARITHMETIC_OVERFLOW);
    wchar_t szOut[4] = {L'#', L'#', L'#', L'#'};
    EXPECT_EQ(MultiByteToWideChar(CP_UTF8, 0, text.Text(), -1, szOut, 4), 0);
    EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
    EXPECT_EQ(szOut[0], L'#');
    EXPECT_EQ(MultiByteToWideChar(CP_UTF8, 0, text.Text(), INT_MAX, nullptr, 0), INT_MAX);
}

TEST_F(HugeText, WideToNarrow) {
    const RepeatedText<wchar_t> text(L'a', kTooMany);
    EXPECT_EQ(WideCharToMultiByte(CP_ACP, 0, text.Text(), -1, nullptr, 0, nullptr, nullptr), 0);
    EXPECT_EQ(GetLastError(), ERROR_ARITHMETIC_OVERFLOW);
}

TEST_F(HugeText, LengthStopsAtIntMax) {
    const RepeatedText<wchar_t> text(L'a', kTooMany);
    EXPECT_EQ(lstrlenW(text.Text()), INT_MAX);
}

}  // namespace
