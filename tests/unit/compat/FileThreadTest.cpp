#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cstdlib>
#include <latch>
#include <thread>
#include <vector>

#include "ChildProcess.h"
#include "TempDirectory.h"
#include "Threads.h"
#include "VEXCompat.h"

namespace {

constexpr DWORD kBlock = 100;

// Threads write through one handle. Each write is whole and begins where the one before it ended.
TEST(FileThreads, WritesOnOneHandleDoNotMix) {
    const TempDirectory directory;
    const std::string strName = directory.Path("log");
    const HANDLE hFile = VexCreateFile(strName.c_str());
    constexpr int kThreads = 4;
    constexpr int kWrites = 4000;
    std::latch start(kThreads);
    std::atomic<int> nFailed = 0;
    OnThreads(kThreads, [=, &start, &nFailed](int nThread) {
        const std::string strBlock(kBlock, static_cast<char>('a' + nThread));
        start.arrive_and_wait();
        for (int i = 0; i < kWrites; ++i) {
            DWORD cb = 0;
            nFailed += WriteFile(hFile, strBlock.data(), kBlock, &cb, nullptr) == FALSE || cb != kBlock;
        }
    });
    EXPECT_TRUE(CloseHandle(hFile));
    EXPECT_EQ(nFailed, 0);
    const std::string strAll = ReadWholeFile(strName);
    ASSERT_EQ(strAll.size(), kThreads * kWrites * kBlock);
    for (size_t i = 0; i < strAll.size(); i += kBlock) {
        ASSERT_EQ(strAll.substr(i, kBlock), std::string(kBlock, strAll[i])) << i;
    }
}

// One thread closes the file while others call every function. Each call either works on this file or fails with
// ERROR_INVALID_HANDLE. None works on another file that got the same descriptor.
TEST(FileThreads, ClosingIsSafeWhileOthersWrite) {
    const TempDirectory directory;
    const std::string strOther = directory.Write("other", "");
    for (int nRound = 0; nRound < 200; ++nRound) {
        const HANDLE hFile = VexCreateFile(directory.Path("log").c_str());
        ASSERT_NE(hFile, INVALID_HANDLE_VALUE);
        std::atomic<int> nWrong = 0;
        std::atomic<int> nAtWork = 0;
        std::vector<std::jthread> threads;
        for (int nThread = 0; nThread < 3; ++nThread) {
            threads.emplace_back([&] {
                ++nAtWork;
                const auto check = [&nWrong](BOOL bResult) {
                    nWrong += bResult == FALSE && GetLastError() != ERROR_INVALID_HANDLE;
                    return bResult != FALSE;
                };
                DWORD cb = 0;
                LONGLONG cbSize = 0;
                char buffer[16];
                while (check(WriteFile(hFile, "0123456789", 10, &cb, nullptr)) &&
                       check(SetFilePointerEx(hFile, LARGE_INTEGER{}, nullptr, FILE_BEGIN)) &&
                       check(ReadFile(hFile, buffer, 10, &cb, nullptr)) && check(GetFileSizeEx(hFile, &cbSize)) &&
                       check(FlushFileBuffers(hFile)) && check(SetEndOfFile(hFile))) {
                }
            });
        }
        while (nAtWork < 3) {
            std::this_thread::yield();
        }
        EXPECT_TRUE(CloseHandle(hFile));
        const HANDLE hOther = VexCreateFile(strOther.c_str());  // may be given the same descriptor
        threads.clear();
        EXPECT_TRUE(CloseHandle(hOther));
        EXPECT_EQ(nWrong, 0);
    }
    EXPECT_EQ(ReadWholeFile(strOther), "");
}

TEST(FileThreads, OneOfManyClosesTheHandle) {
    const TempDirectory directory;
    for (int nRound = 0; nRound < 100; ++nRound) {
        const HANDLE hFile = VexCreateFile(directory.Path("log").c_str());
        std::atomic<int> nClosed = 0;
        OnThreads(4, [&](int) { nClosed += CloseHandle(hFile); });
        EXPECT_EQ(nClosed, 1);
    }
}

// The creator of the file writes its beginning before the others write anything.
TEST(FileThreads, ManyCreateTheSameFile) {
    const TempDirectory directory;
    for (int nRound = 0; nRound < 100; ++nRound) {
        const std::string strName = directory.Path("f" + std::to_string(nRound));
        std::atomic<int> nCreated = 0;
        std::atomic<int> nOpened = 0;
        OnThreads(4, [&](int) {
            const HANDLE hFile = VexCreateFile(strName.c_str());
            const bool bCreated = GetLastError() == ERROR_SUCCESS;
            nCreated += bCreated;
            LONGLONG cbSize = 0;
            EXPECT_TRUE(GetFileSizeEx(hFile, &cbSize));
            LARGE_INTEGER liEnd{};
            liEnd.LowPart = bCreated ? 0 : static_cast<DWORD>(cbSize);
            EXPECT_TRUE(SetFilePointerEx(hFile, liEnd, nullptr, FILE_BEGIN));
            DWORD cb = 0;
            EXPECT_TRUE(WriteFile(hFile, bCreated ? "begin " : "more ", bCreated ? 6 : 5, &cb, nullptr));
            nOpened += CloseHandle(hFile);
        });
        EXPECT_EQ(nCreated, 1);
        EXPECT_EQ(nOpened, 4);
        EXPECT_EQ(ReadWholeFile(strName), "begin more more more ");
    }
}

// The host exits while its log writer still opens, writes and closes files. The table of files must not be destroyed.
TEST(FileThreads, ExitIsSafeWhileAThreadWorks) {
    const TempDirectory directory;
    const std::string strName = directory.Path("log");
    for (int nRound = 0; nRound < 20; ++nRound) {
        ExpectChildPasses(
            [&strName] {
                static std::atomic<int> s_nLines = 0;
                // Runs after the destructors of objects that are created later. The thread still works then.
                std::atexit([] {
                    for (const int nLines = s_nLines; s_nLines < nLines + 50;) {
                        std::this_thread::yield();
                    }
                });
                std::thread([&strName] {
                    for (;;) {
                        const HANDLE hFile = VexCreateFile(strName.c_str());
                        DWORD cb = 0;
                        WriteFile(hFile, "line", 4, &cb, nullptr);
                        CloseHandle(hFile);
                        ++s_nLines;
                    }
                }).detach();
                while (s_nLines < 10) {
                    std::this_thread::yield();
                }
            },
            Exit::kByReturn);
    }
}

}  // namespace
