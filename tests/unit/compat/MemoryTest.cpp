#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "VEXCompat.h"

namespace {

constexpr wchar_t kFill = L'#';

struct WideCopy {
    const wchar_t* pszSource;
    size_t cchRoom;
    int nResult;
    const wchar_t* pszDestination;
};

TEST(WcscpyS, StaysWithinItsRoom) {
    const WideCopy copies[] = {
        {L"", 1, 0, L""},
        {L"abc", 4, 0, L"abc"},
        {L"abc", 8, 0, L"abc"},
        {L"abc", 3, ERANGE, L""},
        {L"abc", 1, ERANGE, L""},
        {nullptr, 4, EINVAL, L""},
        {L"\U0001F600x", 3, 0, L"\U0001F600x"},
    };
    for (const WideCopy& copy : copies) {
        std::array<wchar_t, 9> buffer;
        buffer.fill(kFill);
        EXPECT_EQ(wcscpy_s(buffer.data(), copy.cchRoom, copy.pszSource), copy.nResult);
        EXPECT_EQ(std::wstring(buffer.data()), copy.pszDestination);
        EXPECT_TRUE(std::all_of(buffer.begin() + static_cast<std::ptrdiff_t>(copy.cchRoom), buffer.end(),
                                [](wchar_t ch) { return ch == kFill; }));
    }
}

TEST(WcscpyS, NoRoomIsNotTouched) {
    wchar_t ch = kFill;
    EXPECT_EQ(wcscpy_s(&ch, 0, L"abc"), ERANGE);
    EXPECT_EQ(wcscpy_s(&ch, 0, L""), ERANGE);
    EXPECT_EQ(ch, kFill);
    EXPECT_EQ(wcscpy_s(nullptr, 4, L"abc"), EINVAL);
    EXPECT_EQ(wcscpy_s(nullptr, 0, nullptr), EINVAL);
}

TEST(WcscpyS, AsTheLogManagerCallsIt) {
    wchar_t szPath[260] = {};
    EXPECT_EQ(wcscpy_s(szPath, 260, L"/tmp/PILog.txt"), 0);
    EXPECT_STREQ(szPath, L"/tmp/PILog.txt");
    EXPECT_EQ(wcscpy_s(szPath, 260, std::wstring(259, L'p').c_str()), 0);
    EXPECT_EQ(std::wstring(szPath), std::wstring(259, L'p'));
    EXPECT_EQ(wcscpy_s(szPath, 260, std::wstring(260, L'p').c_str()), ERANGE);
    EXPECT_STREQ(szPath, L"");
}

// The source may lack a terminator: at most as many characters are read as the room has.
TEST(WcscpyS, ReadsNoFurtherThanTheRoom) {
    const auto source = std::make_unique<wchar_t[]>(3);
    std::fill_n(source.get(), 3, L'x');
    wchar_t szRoom[3] = {kFill, kFill, kFill};
    EXPECT_EQ(wcscpy_s(szRoom, 3, source.get()), ERANGE);
    EXPECT_STREQ(szRoom, L"");
}

TEST(WcscpyS, Overlapping) {
    wchar_t sz[] = L"0123456789";
    EXPECT_EQ(wcscpy_s(sz, 11, sz + 3), 0);
    EXPECT_STREQ(sz, L"3456789");
    wchar_t szUp[12] = L"0123456";
    EXPECT_EQ(wcscpy_s(szUp + 2, 10, szUp), 0);
    EXPECT_STREQ(szUp, L"010123456");
    EXPECT_EQ(wcscpy_s(szUp, 12, szUp), 0);
    EXPECT_STREQ(szUp, L"010123456");
}

struct ByteCopy {
    const char* pSource;
    size_t cbRoom;
    size_t cbCount;
    int nResult;
    std::string strDestination;  // all 8 bytes
};

TEST(MemcpyX, CopiesAllOrZeroesTheRoom) {
    const std::string strZero(8, '\0');
    const ByteCopy copies[] = {
        {"abcdefgh", 8, 8, 0, "abcdefgh"},
        {"abcdefgh", 8, 3, 0, "abc#####"},
        {"abcdefgh", 3, 3, 0, "abc#####"},
        {"abcdefgh", 0, 0, 0, "########"},
        {nullptr, 8, 0, 0, "########"},
        {"abcdefgh", 3, 4, ERANGE, strZero.substr(0, 3) + "#####"},
        {"abcdefgh", 0, 1, ERANGE, "########"},
        {"abcdefgh", 8, ~size_t{0}, ERANGE, strZero},
        {nullptr, 5, 3, EINVAL, strZero.substr(0, 5) + "###"},
        {nullptr, 5, 6, EINVAL, strZero.substr(0, 5) + "###"},
    };
    for (const ByteCopy& copy : copies) {
        std::string strBuffer(8, '#');
        EXPECT_EQ(memcpy_x(strBuffer.data(), copy.cbRoom, copy.pSource, copy.cbCount), copy.nResult);
        EXPECT_EQ(strBuffer, copy.strDestination) << copy.cbRoom << " " << copy.cbCount;
    }
    EXPECT_EQ(memcpy_x(nullptr, 0, "a", 1), EINVAL);
    EXPECT_EQ(memcpy_x(nullptr, 0, nullptr, 0), 0);
}

TEST(MemcpyX, Overlapping) {
    std::string strLong;
    for (int i = 0; i < 1000; ++i) {
        strLong += static_cast<char>('a' + i % 23);
    }
    const std::string strBefore = strLong;
    EXPECT_EQ(memcpy_x(strLong.data() + 7, 993, strLong.data(), 993), 0);
    EXPECT_EQ(strLong, strBefore.substr(0, 7) + strBefore.substr(0, 993));
    EXPECT_EQ(memcpy_x(strLong.data(), 993, strLong.data() + 7, 993), 0);
    EXPECT_EQ(strLong.substr(0, 993), strBefore.substr(0, 993));

    char sz[] = "0123456789";
    EXPECT_EQ(memcpy_x(sz + 2, 8, sz, 8), 0);
    EXPECT_STREQ(sz, "0101234567");
    EXPECT_EQ(memcpy_x(sz, 10, sz + 4, 6), 0);
    EXPECT_STREQ(sz, "2345674567");
}

}  // namespace
