// Files that can be opened. FileRefusalTest.cpp has those that are refused.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <cstring>

#include "ChildProcess.h"
#include "TempDirectory.h"
#include "VEXCompat.h"

namespace {

class FileTest : public testing::Test {
protected:
    void SetUp() override { m_hFile = VexCreateFile(m_strName.c_str()); }
    void TearDown() override { CloseHandle(m_hFile); }

    BOOL Write(const std::string& strData) {
        DWORD cb = 0;
        const BOOL bResult = WriteFile(m_hFile, strData.data(), strData.size(), &cb, nullptr);
        EXPECT_EQ(cb, strData.size());
        return bResult;
    }
    std::string Read(DWORD cbWanted) {
        std::string strData(cbWanted, '\0');
        DWORD cb = 0;
        EXPECT_TRUE(ReadFile(m_hFile, strData.data(), cbWanted, &cb, nullptr));
        strData.resize(cb);
        return strData;
    }
    BOOL SeekTo(DWORD dwPosition) {
        LARGE_INTEGER liPosition{};
        liPosition.LowPart = dwPosition;
        return SetFilePointerEx(m_hFile, liPosition, nullptr, FILE_BEGIN);
    }
    LONGLONG Size() {
        LONGLONG cb = -1;
        EXPECT_TRUE(GetFileSizeEx(m_hFile, &cb));
        return cb;
    }

    const TempDirectory m_directory;
    const std::string m_strName = m_directory.Path("log");
    HANDLE m_hFile = nullptr;
};

TEST_F(FileTest, TheLastErrorTellsAnOpenedFileFromACreatedOne) {
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    EXPECT_NE(m_hFile, nullptr);
    EXPECT_NE(m_hFile, INVALID_HANDLE_VALUE);
    ASSERT_TRUE(Write("text"));
    const HANDLE hAgain = VexCreateFile(m_strName.c_str());
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    EXPECT_NE(hAgain, m_hFile);
    EXPECT_EQ(ReadWholeFile(m_strName), "text") << "opening keeps the contents";
    DWORD cb = 0;
    char buffer[8] = {};
    EXPECT_TRUE(ReadFile(hAgain, buffer, sizeof buffer, &cb, nullptr)) << "each handle has its own position";
    EXPECT_EQ(std::string(buffer, cb), "text");
    EXPECT_TRUE(WriteFile(hAgain, "!", 1, &cb, nullptr));
    EXPECT_EQ(Size(), 5);
    EXPECT_TRUE(CloseHandle(hAgain));
    std::filesystem::resize_file(m_strName, 0);
    EXPECT_TRUE(FlushFileBuffers(m_hFile));
    EXPECT_TRUE(FlushFileBuffers(m_hFile));  // nothing to flush: releases the lock
    EXPECT_TRUE(CloseHandle(VexCreateFile(m_strName.c_str())));
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS) << "an empty file is not a new one";
    std::filesystem::remove(m_strName);
    const HANDLE hNew = VexCreateFile(m_strName.c_str());
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    EXPECT_TRUE(CloseHandle(hNew));
}

TEST_F(FileTest, IsPrivateToItsOwnerAndNotInheritedByPrograms) {
    struct stat status {};
    ASSERT_EQ(stat(m_strName.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
    const mode_t nBefore = umask(0);
    const HANDLE hUnmasked = VexCreateFile(m_directory.Path("unmasked").c_str());
    umask(0277);
    const HANDLE hMasked = VexCreateFile(m_directory.Path("masked").c_str());
    umask(nBefore);
    ASSERT_EQ(stat(m_directory.Path("unmasked").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
    ASSERT_EQ(stat(m_directory.Path("masked").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0400U);
    EXPECT_TRUE(CloseHandle(hUnmasked));
    EXPECT_TRUE(CloseHandle(hMasked));

    struct stat opened {};
    ASSERT_EQ(stat(m_strName.c_str(), &status), 0);
    int nFound = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        const int nDescriptor = std::stoi(entry.path().filename());
        if (fstat(nDescriptor, &opened) == 0 && opened.st_dev == status.st_dev && opened.st_ino == status.st_ino) {
            EXPECT_NE(fcntl(nDescriptor, F_GETFD) & FD_CLOEXEC, 0);
            ++nFound;
        }
    }
    EXPECT_EQ(nFound, 1);
}

TEST_F(FileTest, AnExistingFileKeepsItsMode) {
    ASSERT_EQ(chmod(m_strName.c_str(), 0640), 0);
    EXPECT_TRUE(CloseHandle(VexCreateFile(m_strName.c_str())));
    struct stat status {};
    ASSERT_EQ(stat(m_strName.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640U);
}

TEST_F(FileTest, ALinkInTheMiddleOfThePathIsFollowed) {
    std::filesystem::create_directory(m_directory.Path("real"));
    std::filesystem::create_directory_symlink("real", m_directory.Path("link"));
    const HANDLE hFile = VexCreateFile(m_directory.Path("link/file").c_str());
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    EXPECT_TRUE(std::filesystem::exists(m_directory.Path("real/file")));
    EXPECT_TRUE(CloseHandle(hFile));
}

TEST_F(FileTest, ReadingAndWritingMoveOnePosition) {
    EXPECT_EQ(Size(), 0);
    EXPECT_TRUE(Write("0123456789"));
    EXPECT_EQ(Size(), 10);
    EXPECT_EQ(Read(4), "") << "at the end";
    EXPECT_TRUE(SeekTo(0));
    EXPECT_EQ(Read(4), "0123");
    EXPECT_EQ(Read(2), "45");
    EXPECT_TRUE(Write("AB"));
    EXPECT_EQ(Read(100), "89") << "fewer at the end";
    EXPECT_EQ(Read(0), "");
    EXPECT_EQ(ReadWholeFile(m_strName), "012345AB89");
}

TEST_F(FileTest, BinaryBytesStayAsTheyAre) {
    std::string strData(256, '\0');
    for (size_t i = 0; i < strData.size(); ++i) {
        strData[i] = static_cast<char>(i);
    }
    EXPECT_TRUE(Write(strData + "\r\n\r\n\x1A"));
    EXPECT_EQ(ReadWholeFile(m_strName), strData + "\r\n\r\n\x1A");
}

TEST_F(FileTest, TransfersMegabytesAtOnce) {
    const std::string strData(3 << 20, 'm');
    EXPECT_TRUE(Write(strData));
    EXPECT_TRUE(SeekTo(0));
    EXPECT_EQ(Read(strData.size() + 1), strData);
}

TEST_F(FileTest, BeyondTheEndReadsNothingAndWritesAGap) {
    EXPECT_TRUE(Write("ab"));
    EXPECT_TRUE(SeekTo(5));
    EXPECT_EQ(Size(), 2) << "moving alone changes nothing";
    EXPECT_EQ(Read(4), "");
    EXPECT_TRUE(Write("c"));
    EXPECT_EQ(ReadWholeFile(m_strName), std::string("ab\0\0\0c", 6));
}

TEST_F(FileTest, EndingTheFileCutsOrExtends) {
    EXPECT_TRUE(Write("0123456789"));
    EXPECT_TRUE(SeekTo(4));
    EXPECT_TRUE(SetEndOfFile(m_hFile));
    EXPECT_EQ(ReadWholeFile(m_strName), "0123");
    EXPECT_TRUE(Write("x"));
    EXPECT_EQ(ReadWholeFile(m_strName), "0123x") << "the position stays";
    EXPECT_TRUE(SeekTo(8));
    EXPECT_TRUE(SetEndOfFile(m_hFile));
    EXPECT_EQ(ReadWholeFile(m_strName), std::string("0123x\0\0\0", 8));
    EXPECT_TRUE(SeekTo(0));
    EXPECT_TRUE(SetEndOfFile(m_hFile));
    EXPECT_EQ(Size(), 0);
}

// The log writer's steps: append an entry, and cut the file from the front when it is too large.
TEST_F(FileTest, IsAppendedToAndCutFromTheFront) {
    EXPECT_TRUE(Write("\xFF\xFE"));
    for (const char* pszLine : {"first", "second", "third"}) {
        const HANDLE hBefore = m_hFile;
        EXPECT_TRUE(CloseHandle(hBefore));
        m_hFile = VexCreateFile(m_strName.c_str());
        EXPECT_NE(GetLastError(), ERROR_SUCCESS);
        EXPECT_TRUE(SeekTo(static_cast<DWORD>(Size())));
        EXPECT_TRUE(Write(pszLine));
        EXPECT_TRUE(FlushFileBuffers(m_hFile));
        EXPECT_TRUE(Write("\r\n\r\n"));
        EXPECT_TRUE(FlushFileBuffers(m_hFile));
    }
    EXPECT_EQ(ReadWholeFile(m_strName),
              "\xFF\xFE"
              "first\r\n\r\nsecond\r\n\r\nthird\r\n\r\n");
    EXPECT_TRUE(SeekTo(0));
    const std::string strAll = Read(static_cast<DWORD>(Size()));
    EXPECT_TRUE(SeekTo(0));
    EXPECT_TRUE(Write("\xFF\xFE"));
    EXPECT_TRUE(Write(strAll.substr(21)));
    EXPECT_TRUE(SetEndOfFile(m_hFile));
    EXPECT_EQ(ReadWholeFile(m_strName),
              "\xFF\xFE"
              "third\r\n\r\n");
}

TEST_F(FileTest, OnlyTheFirstWordOfThePositionCounts) {
    EXPECT_TRUE(Write("0123456789"));
    auto* pGarbage = reinterpret_cast<LONGLONG*>(std::uintptr_t{0xDEADBEEF});
    LARGE_INTEGER liPosition{};
    liPosition.LowPart = 3;
    liPosition.HighPart = 0;
    for (const DWORD dwMethod : {0UL, 1UL, 2UL, 3UL, ~0UL}) {
        EXPECT_TRUE(SetFilePointerEx(m_hFile, liPosition, pGarbage, dwMethod));
        EXPECT_EQ(Read(2), "34") << dwMethod;
    }
}

TEST_F(FileTest, RefusesPositionsAboveTheLimit) {
    EXPECT_TRUE(Write("x"));
    for (const DWORD dwPosition : {DWORD{INT64_MAX} + 1, DWORD{INT64_MAX} + 2, ~DWORD{0}}) {
        EXPECT_FALSE(SeekTo(dwPosition)) << dwPosition;
        EXPECT_EQ(GetLastError(), ERROR_NEGATIVE_SEEK);
    }
    EXPECT_TRUE(Write("y"));
    EXPECT_EQ(ReadWholeFile(m_strName), "xy") << "a refused position leaves the old one";

    EXPECT_TRUE(SeekTo(INT64_MAX));
    DWORD cb = 99;
    EXPECT_FALSE(WriteFile(m_hFile, "zz", 2, &cb, nullptr));
    EXPECT_NE(GetLastError(), ERROR_SUCCESS);
    EXPECT_EQ(cb, 0U);
    // tmpfs can hold a file of this size, which nobody can read to its end.
    if (SetEndOfFile(m_hFile)) {
        EXPECT_EQ(Size(), INT64_MAX);
        return;
    }
    EXPECT_EQ(ReadWholeFile(m_strName), "xy");
}

TEST_F(FileTest, TheSizeIsEightBytes) {
    EXPECT_TRUE(Write("12345"));
    LONGLONG sizes[3] = {-1, 0, -1};
    EXPECT_TRUE(GetFileSizeEx(m_hFile, &sizes[1]));
    EXPECT_EQ(sizes[0], -1);
    EXPECT_EQ(sizes[1], 5);
    EXPECT_EQ(sizes[2], -1);
    EXPECT_TRUE(SeekTo((DWORD{1} << 33) + 7));
    EXPECT_TRUE(SetEndOfFile(m_hFile));
    EXPECT_EQ(Size(), (LONGLONG{1} << 33) + 7) << "more than 32 bits";
}

// The count is 8 bytes wide and the overlapped argument does not matter.
TEST_F(FileTest, TheCountIsEightBytes) {
    DWORD counts[3] = {~0UL, ~0UL, ~0UL};
    EXPECT_TRUE(WriteFile(m_hFile, "abc", 3, &counts[1], &counts[0]));
    EXPECT_EQ(counts[1], 3U);
    EXPECT_TRUE(SeekTo(0));
    counts[1] = ~0UL;
    char buffer[8] = {};
    EXPECT_TRUE(ReadFile(m_hFile, buffer, 8, &counts[1], &counts[0]));
    EXPECT_EQ(counts[1], 3U);
    EXPECT_EQ(counts[0], ~0UL);
    EXPECT_EQ(counts[2], ~0UL);
}

TEST_F(FileTest, RefusesNullArguments) {
    DWORD cb = 99;
    char buffer[4] = {};
    const auto expectRefused = [](BOOL bResult) {
        EXPECT_FALSE(bResult);
        EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
        CloseHandle(nullptr);  // another last error
    };
    CloseHandle(nullptr);
    expectRefused(WriteFile(m_hFile, "abc", 3, nullptr, nullptr));
    expectRefused(ReadFile(m_hFile, buffer, 4, nullptr, nullptr));
    expectRefused(WriteFile(m_hFile, nullptr, 3, &cb, nullptr));
    EXPECT_EQ(cb, 0U);
    cb = 99;
    expectRefused(ReadFile(m_hFile, nullptr, 3, &cb, nullptr));
    EXPECT_EQ(cb, 0U);
    expectRefused(GetFileSizeEx(m_hFile, nullptr));
    EXPECT_EQ(Size(), 0);
}

// The kernel writes the bytes that the limit allows and refuses the rest.
TEST_F(FileTest, AWriteThatCrossesTheSizeLimitIsShort) {
    ExpectChildPasses([&] {
        std::signal(SIGXFSZ, SIG_IGN);
        constexpr rlimit kLimit{100, RLIM_INFINITY};
        EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &kLimit), 0);
        EXPECT_TRUE(Write(std::string(90, 'a')));
        DWORD cb = 0;
        EXPECT_FALSE(WriteFile(m_hFile, "0123456789abcdef", 16, &cb, nullptr));
        EXPECT_EQ(GetLastError(), ERROR_FILE_TOO_LARGE);
        EXPECT_EQ(cb, 10U);
    });
    EXPECT_EQ(ReadWholeFile(m_strName), std::string(90, 'a') + "0123456789");
}

// The toolkit buffers nothing.
TEST_F(FileTest, WrittenBytesSurviveTheSuddenEndOfTheProcess) {
    EXPECT_EQ(RunChild([&] {
                  EXPECT_TRUE(Write("before the end"));
                  EXPECT_TRUE(FlushFileBuffers(m_hFile));
                  std::raise(SIGKILL);
              }).nSignal,
              SIGKILL);
    EXPECT_EQ(ReadWholeFile(m_strName), "before the end");
}

}  // namespace
