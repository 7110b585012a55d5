#include <gtest/gtest.h>

#include <thread>

#include "TempDirectory.h"
#include "VEXCompat.h"

namespace {

TEST(LastError, BelongsToTheThread) {
    EXPECT_EQ(CloseHandle(nullptr), FALSE);
    ASSERT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    std::thread([] {
        EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
        EXPECT_EQ(VexCreateFile(nullptr), INVALID_HANDLE_VALUE);
        EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    }).join();
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
}

// Only VexCreateFile sets the last error when it succeeds.
TEST(LastError, ASuccessLeavesItAlone) {
    const TempDirectory directory;
    const std::string strIni = directory.Write("x.ini", "[s]\nk=5\n");
    const HANDLE hFile = VexCreateFile(directory.Path("f").c_str());
    ASSERT_EQ(GetLastError(), ERROR_SUCCESS);
    ASSERT_EQ(CloseHandle(nullptr), FALSE);

    DWORD cb = 0;
    LONGLONG cbSize = 0;
    BYTE buffer[4] = {};
    LARGE_INTEGER liStart{};
    EXPECT_TRUE(WriteFile(hFile, "abcd", 4, &cb, nullptr));
    EXPECT_TRUE(SetFilePointerEx(hFile, liStart, nullptr, FILE_BEGIN));
    EXPECT_TRUE(ReadFile(hFile, buffer, 4, &cb, nullptr));
    EXPECT_TRUE(GetFileSizeEx(hFile, &cbSize));
    EXPECT_TRUE(FlushFileBuffers(hFile));
    EXPECT_TRUE(SetEndOfFile(hFile));
    EXPECT_TRUE(CloseHandle(hFile));

    LPVOID pBlock = HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, 1);
    pBlock = HeapReAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, pBlock, 2);
    EXPECT_EQ(HeapSize(GetProcessHeap(), 0, pBlock), 2U);
    EXPECT_TRUE(HeapFree(GetProcessHeap(), 0, pBlock));

    wchar_t szWide[8] = {};
    char szNarrow[8] = {};
    EXPECT_EQ(MultiByteToWideChar(CP_UTF8, 0, "ab", -1, szWide, 8), 3);
    EXPECT_EQ(WideCharToMultiByte(CP_ACP, 0, szWide, -1, szNarrow, 8, nullptr, nullptr), 3);
    EXPECT_EQ(lstrlenW(szWide), 2);
    EXPECT_EQ(GetPrivateProfileIntA("s", "k", 1, strIni.c_str()), 5U);
    EXPECT_TRUE(PathIsDirectoryW(L"/"));
    EXPECT_NE(GetTickCount(), 0U);

    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
}

}  // namespace
