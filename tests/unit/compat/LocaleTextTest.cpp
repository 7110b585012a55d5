#include "compat/LocaleText.h"

#include <gtest/gtest.h>

#include <string>

#include "ScopedLocale.h"

namespace {

// Returns the whole length and writes what fits, in a locale with the toolkit's own encoder and in one with libc's.
TEST(LocaleText, WritesNoMoreThanFits) {
    for (const char* pszLocale : {"C.UTF-8", "C"}) {
        const ScopedLocale locale(pszLocale);
        for (size_t n = 0; n <= 8; ++n) {
            std::string strNarrow(8, '#');
            EXPECT_EQ(vextk::EncodeLocale(L"abcdef", {strNarrow.data(), n}, nullptr), 6U);
            EXPECT_EQ(strNarrow, std::string("abcdef").substr(0, n) + std::string(n < 6 ? 8 - n : 2, '#'));
            std::wstring strWide(8, L'#');
            EXPECT_EQ(vextk::DecodeLocale("abcdef", {strWide.data(), n}), 6U);
            EXPECT_EQ(strWide, std::wstring(L"abcdef").substr(0, n) + std::wstring(n < 6 ? 8 - n : 2, L'#'));
        }
    }
}

TEST(LocaleText, TheEmptyText) {
    EXPECT_EQ(vextk::EncodeLocale({}, {}, nullptr), 0U);
    EXPECT_EQ(vextk::DecodeLocale({}, {}), 0U);
}

}  // namespace
