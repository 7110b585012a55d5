// What the file functions do when a system call is interrupted, falls short or fails, and how many calls they make.
#include "SystemCalls.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <optional>
#include <thread>

#include "TempDirectory.h"
#include "VEXCompat.h"
#include "VexFile.h"

namespace {

using CallCounts = std::map<std::string, int>;

class SystemCallTest : public testing::Test {
protected:
    void SetUp() override {
        m_hFile = VexCreateFile(m_strName.c_str());
        ASSERT_EQ(GetLastError(), ERROR_SUCCESS);
    }
    void TearDown() override {
        CloseHandle(m_hFile);
        // Takes the lock: until then the process remembers that it waited for this file, and later tests count calls.
        CloseHandle(VexCreateFile(m_strName.c_str()));
    }

    BOOL Write(const std::string& strData, DWORD& cbWritten) {
        return WriteFile(m_hFile, strData.data(), strData.size(), &cbWritten, nullptr);
    }
    BOOL SeekTo(DWORD dwPosition) {
        LARGE_INTEGER liPosition{};
        liPosition.LowPart = dwPosition;
        return SetFilePointerEx(m_hFile, liPosition, nullptr, FILE_BEGIN);
    }

    const TempDirectory m_directory;
    const std::string m_strName = m_directory.Path("log");
    HANDLE m_hFile = nullptr;
};

// The second write begins before the first has moved the position.
TEST_F(SystemCallTest, AWriteWaitsForAnotherThreadsWrite) {
    std::promise<void> firstHasBegun;
    std::promise<void> secondHasEnded;
    std::thread first([&] {
        SystemCalls calls;
        calls.Script("pwrite", {After([&] {
                         firstHasBegun.set_value();
                         // Must time out. A second write that does not wait would end within this time.
                         EXPECT_EQ(secondHasEnded.get_future().wait_for(std::chrono::milliseconds(100)),
                                   std::future_status::timeout);
                     })});
        DWORD cb = 0;
        EXPECT_TRUE(Write("first ", cb));
    });
    firstHasBegun.get_future().wait();
    DWORD cb = 0;
    EXPECT_TRUE(Write("second", cb));
    secondHasEnded.set_value();
    first.join();
    EXPECT_EQ(ReadWholeFile(m_strName), "first second");
}

struct TransferCase {
    const char* pszWhat;
    std::vector<Outcome> outcomes;
    bool bRepeat;
    DWORD cbDone;   // of ten bytes
    DWORD dwError;  // 0: success
};

TEST_F(SystemCallTest, WritesAllBytesOrReportsTheError) {
    const TransferCase cases[] = {
        {"at once", {kReal}, false, 10, 0},
        {"a signal first", {Fail(EINTR)}, false, 10, 0},
        {"a storm of signals", {Fail(EINTR), Fail(EINTR), Fail(EINTR), Short(3)}, true, 10, 0},
        {"byte by byte", {Short(1)}, true, 10, 0},
        {"nine and one", {Short(9)}, false, 10, 0},
        {"a full disk", {Fail(ENOSPC)}, true, 0, ERROR_DISK_FULL},
        {"a disk that fills up", {Short(4), Fail(ENOSPC)}, false, 4, ERROR_DISK_FULL},
        {"a used up quota", {Short(4), Fail(EINTR), Fail(EDQUOT)}, false, 4, ERROR_DISK_FULL},
        {"too large a file", {Short(9), Fail(EFBIG)}, false, 9, ERROR_FILE_TOO_LARGE},
        {"a broken disk", {Fail(EIO)}, false, 0, ERROR_IO_DEVICE},
        {"nothing is taken", {Short(2), kZero}, false, 2, ERROR_IO_DEVICE},
    };
    const std::string strData = "0123456789";
    for (const TransferCase& row : cases) {
        SCOPED_TRACE(row.pszWhat);
        ASSERT_TRUE(SeekTo(0));
        ASSERT_TRUE(SetEndOfFile(m_hFile));
        CloseHandle(nullptr);  // another last error
        DWORD cbWritten = 99;
        {
            SystemCalls calls;
            calls.Script("pwrite", row.outcomes, row.bRepeat);
            EXPECT_EQ(Write(strData, cbWritten), row.dwError == 0 ? TRUE : FALSE);
        }
        EXPECT_EQ(GetLastError(), row.dwError == 0 ? ERROR_INVALID_HANDLE : row.dwError);
        EXPECT_EQ(cbWritten, row.cbDone);
        EXPECT_EQ(ReadWholeFile(m_strName), strData.substr(0, row.cbDone));
        // The position is behind the written bytes, so that the caller can continue.
        EXPECT_TRUE(Write("!", cbWritten));
        EXPECT_EQ(ReadWholeFile(m_strName), strData.substr(0, row.cbDone) + "!");
    }
}

TEST_F(SystemCallTest, ReadsAllBytesUpToTheEndOfTheFile) {
    const TransferCase cases[] = {
        {"at once", {kReal}, false, 10, 0},
        {"a signal first", {Fail(EINTR)}, false, 10, 0},
        {"a storm of signals", {Fail(EINTR), Fail(EINTR), Short(3)}, true, 10, 0},
        {"byte by byte", {Short(1)}, true, 10, 0},
        {"the end of the file", {Short(7), kZero}, false, 7, 0},
        {"a broken disk", {Short(7), Fail(EIO)}, false, 7, ERROR_IO_DEVICE},
    };
    DWORD cb = 0;
    ASSERT_TRUE(Write("0123456789abc", cb));
    for (const TransferCase& row : cases) {
        SCOPED_TRACE(row.pszWhat);
        ASSERT_TRUE(SeekTo(0));
        CloseHandle(nullptr);
        char buffer[10] = {};
        DWORD cbRead = 99;
        {
            SystemCalls calls;
            calls.Script("pread", row.outcomes, row.bRepeat);
            EXPECT_EQ(ReadFile(m_hFile, buffer, sizeof buffer, &cbRead, nullptr), row.dwError == 0 ? TRUE : FALSE);
        }
        EXPECT_EQ(GetLastError(), row.dwError == 0 ? ERROR_INVALID_HANDLE : row.dwError);
        EXPECT_EQ(cbRead, row.cbDone);
        EXPECT_EQ(std::string(buffer, cbRead), std::string("0123456789").substr(0, row.cbDone));
        EXPECT_TRUE(ReadFile(m_hFile, buffer, 1, &cbRead, nullptr));
        EXPECT_EQ(buffer[0], "0123456789abc"[row.cbDone]);
    }
}

TEST_F(SystemCallTest, SetEndOfFileRetriesAfterASignalAndReportsFailures) {
    DWORD cb = 0;
    ASSERT_TRUE(Write("0123456789", cb));
    ASSERT_TRUE(SeekTo(4));
    SystemCalls calls;
    calls.Script("ftruncate", {Fail(EINTR), Fail(EINTR)});
    EXPECT_TRUE(SetEndOfFile(m_hFile));
    EXPECT_EQ(ReadWholeFile(m_strName), "0123");
    calls.Script("ftruncate", {Fail(ENOSPC)});
    EXPECT_FALSE(SetEndOfFile(m_hFile));
    EXPECT_EQ(GetLastError(), ERROR_DISK_FULL);
}

TEST_F(SystemCallTest, GetFileSizeExReportsAFailure) {
    SystemCalls calls;
    calls.Script("lseek", {Fail(EIO)});
    LONGLONG cbSize = 77;
    EXPECT_FALSE(GetFileSizeEx(m_hFile, &cbSize));
    EXPECT_EQ(GetLastError(), ERROR_IO_DEVICE);
    EXPECT_EQ(cbSize, 77);
}

struct OpenCase {
    const char* pszWhat;
    std::vector<Outcome> open;
    std::vector<Outcome> create;
    bool bRepeat;
    bool bOpened;
    DWORD dwError;
};

// The file exists all the time. Only the scripted outcomes say that it does not.
TEST_F(SystemCallTest, OpensAFileThatOtherProcessesChange) {
    const OpenCase cases[] = {
        {"a signal", {Fail(EINTR)}, {}, false, true, ERROR_ALREADY_EXISTS},
        {"created by another between the attempts", {Fail(ENOENT)}, {Fail(EEXIST)}, false, true, ERROR_ALREADY_EXISTS},
        {"twice", {Fail(ENOENT), Fail(ENOENT)}, {Fail(EEXIST), Fail(EEXIST)}, false, true, ERROR_ALREADY_EXISTS},
        {"a signal while creating", {Fail(ENOENT)}, {Fail(EINTR)}, false, true, ERROR_ALREADY_EXISTS},
        {"time and again", {Fail(ENOENT)}, {Fail(EEXIST)}, true, false, ERROR_SHARING_VIOLATION},
        {"signals time and again", {Fail(EINTR)}, {}, true, false, ERROR_SHARING_VIOLATION},
        {"no such file", {Fail(ENOENT)}, {Fail(ENOENT)}, false, false, ERROR_PATH_NOT_FOUND},
        {"no room for a new file", {Fail(ENOENT)}, {Fail(ENOSPC)}, false, false, ERROR_DISK_FULL},
        {"not in a read-only file system", {Fail(ENOENT)}, {Fail(EROFS)}, false, false, ERROR_WRITE_PROTECT},
        {"not for us", {Fail(EACCES)}, {}, false, false, ERROR_ACCESS_DENIED},
        {"held by a lease", {Fail(EAGAIN)}, {}, false, false, ERROR_SHARING_VIOLATION},
        {"running as a program", {Fail(ETXTBSY)}, {}, false, false, ERROR_SHARING_VIOLATION},
        {"too many open files", {Fail(EMFILE)}, {}, false, false, ERROR_TOO_MANY_OPEN_FILES},
        {"out of memory", {Fail(ENOMEM)}, {}, false, false, ERROR_NOT_ENOUGH_MEMORY},
    };
    for (const OpenCase& row : cases) {
        SCOPED_TRACE(row.pszWhat);
        SystemCalls calls;
        calls.Script("open", row.open, row.bRepeat);
        calls.Script("open to create", row.create, row.bRepeat);
        calls.Script("open without a name", {Fail(EOPNOTSUPP)}, true);
        const HANDLE hFile = VexCreateFile(m_strName.c_str());
        EXPECT_EQ(GetLastError(), row.dwError);
        EXPECT_EQ(hFile != INVALID_HANDLE_VALUE, row.bOpened);
        EXPECT_NE(hFile, nullptr);
        EXPECT_LE(calls.Counts().at("open"), 100);
        if (row.bOpened) {
            EXPECT_TRUE(CloseHandle(hFile));
        }
    }
}

TEST_F(SystemCallTest, ClosesTheFileWhenFstatFails) {
    SystemCalls calls;
    calls.Script("fstat", {Fail(EIO)});
    EXPECT_EQ(VexCreateFile(m_strName.c_str()), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_IO_DEVICE);
    EXPECT_EQ(calls.Counts(), (CallCounts{{"open", 1}, {"fstat", 1}, {"close", 1}}));
}

// A log line opens, measures, writes and closes the file: each step is one call or none.
TEST_F(SystemCallTest, NeedsFewCallsForALogLine) {
    ASSERT_TRUE(CloseHandle(m_hFile));
    SystemCalls calls;
    m_hFile = VexCreateFile(m_strName.c_str());
    EXPECT_EQ(calls.Counts(), (CallCounts{{"open", 1}, {"fstat", 1}, {"flock", 1}}));
    calls.Reset();
    LONGLONG cbSize = 0;
    EXPECT_TRUE(GetFileSizeEx(m_hFile, &cbSize));
    EXPECT_EQ(calls.Counts(), (CallCounts{{"lseek", 1}}));
    calls.Reset();
    EXPECT_TRUE(SetFilePointerEx(m_hFile, LARGE_INTEGER{}, nullptr, FILE_BEGIN));
    EXPECT_EQ(calls.Counts(), CallCounts{});
    DWORD cb = 0;
    EXPECT_TRUE(WriteFile(m_hFile, "line", 4, &cb, nullptr));
    EXPECT_EQ(calls.Counts(), (CallCounts{{"pwrite", 1}}));
    calls.Reset();
    EXPECT_TRUE(WriteFile(m_hFile, "", 0, &cb, nullptr));
    EXPECT_TRUE(ReadFile(m_hFile, nullptr, 0, &cb, nullptr));
    EXPECT_EQ(calls.Counts(), CallCounts{});
    EXPECT_TRUE(FlushFileBuffers(m_hFile));
    EXPECT_EQ(calls.Counts(), CallCounts{});
    EXPECT_TRUE(FlushFileBuffers(m_hFile));
    EXPECT_EQ(calls.Counts(), (CallCounts{{"flock", 1}}));
    calls.Reset();
    EXPECT_TRUE(CloseHandle(m_hFile));
    EXPECT_EQ(calls.Counts(), (CallCounts{{"close", 1}}));
}

// The wait is bounded. The number of attempts shows whether it was long or short.
TEST_F(SystemCallTest, WaitsForAHeldLockOnlyOnce) {
    constexpr int kMostInAShortWait = 10;
    const auto looksOfOpening = [this] {
        SystemCalls calls;
        const HANDLE hFile = VexCreateFile(m_strName.c_str());
        EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
        const int nLooks = calls.Counts().at("flock");
        EXPECT_TRUE(CloseHandle(hFile));
        return nLooks;
    };
    EXPECT_GT(looksOfOpening(), kMostInAShortWait);
    EXPECT_LE(looksOfOpening(), kMostInAShortWait);
    EXPECT_TRUE(CloseHandle(VexCreateFile(m_directory.Path("other").c_str())));
    EXPECT_LE(looksOfOpening(), kMostInAShortWait) << "only another lock was free";
    ASSERT_TRUE(FlushFileBuffers(m_hFile));
    EXPECT_EQ(looksOfOpening(), 1);
    LONGLONG cbSize = 0;
    ASSERT_TRUE(GetFileSizeEx(m_hFile, &cbSize));
    EXPECT_GT(looksOfOpening(), kMostInAShortWait) << "the lock was free in between";
}

// Others cannot open it before it is locked.
TEST_F(SystemCallTest, ANewFileIsLockedBeforeItHasItsName) {
    const std::string strName = m_directory.Path("new");
    SystemCalls calls;
    calls.Script("flock", {After([&] { EXPECT_FALSE(std::filesystem::exists(strName)); })});
    const HANDLE hFile = VexCreateFile(strName.c_str());
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    // The stat is this test's own.
    EXPECT_EQ(calls.Counts(),
              (CallCounts{{"flock", 1}, {"linkat", 1}, {"open", 1}, {"open without a name", 1}, {"stat", 1}}));
    CloseHandle(hFile);
}

TEST_F(SystemCallTest, CreatesFilesWhereTheFileSystemHasNoUnnamedFiles) {
    for (const char* pszMissing : {"open without a name", "linkat"}) {
        SystemCalls calls;
        calls.Script(pszMissing, {Fail(EOPNOTSUPP)});
        const HANDLE hFile = VexCreateFile(m_directory.Path(pszMissing).c_str());
        EXPECT_EQ(GetLastError(), ERROR_SUCCESS) << pszMissing;
        EXPECT_EQ(calls.Counts().at("open to create"), 1) << pszMissing;
        EXPECT_TRUE(CloseHandle(hFile));
    }
}

// On such a file system another process can take the lock first, and one that takes no lock can write at any moment.
TEST_F(SystemCallTest, ANewFileThatAnotherProcessWritesFirstCountsAsOpened) {
    const std::string strName = m_directory.Path("shared");
    SystemCalls calls;
    calls.Script("open without a name", {Fail(EOPNOTSUPP)});
    calls.Script("flock", {After([&] { std::ofstream(strName, std::ios::app) << "theirs"; })});
    const HANDLE hFile = VexCreateFile(strName.c_str());
    ASSERT_NE(hFile, INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    EXPECT_TRUE(CloseHandle(hFile));
    EXPECT_EQ(ReadWholeFile(strName), "theirs");
    EXPECT_EQ(std::filesystem::status(strName).permissions(), std::filesystem::perms(0600));
}

TEST_F(SystemCallTest, NeedsFewCallsForADirectory) {
    const std::string strDirectory = m_directory.Path();
    const std::wstring strThere(strDirectory.begin(), strDirectory.end());
    SystemCalls calls;
    EXPECT_EQ(SHCreateDirectoryExW(nullptr, strThere.c_str(), nullptr), static_cast<int>(ERROR_ALREADY_EXISTS));
    EXPECT_EQ(calls.Counts(), (CallCounts{{"stat", 1}}));
    calls.Reset();
    EXPECT_TRUE(PathIsDirectoryW(strThere.c_str()));
    EXPECT_EQ(calls.Counts(), (CallCounts{{"stat", 1}}));
    calls.Reset();
    EXPECT_EQ(SHCreateDirectoryExW(nullptr, (strThere + L"/one").c_str(), nullptr), 0);
    EXPECT_EQ(calls.Counts(), (CallCounts{{"stat", 1}, {"mkdir", 1}}));
}

struct DirectoryCase {
    const char* pszWhat;
    Outcome first;                      // of mkdir for the directory itself
    std::optional<Outcome> afterwards;  // of the second mkdir, when its parents exist
    int nResult;
};

TEST_F(SystemCallTest, CreatesDirectoriesThatOtherProcessesChange) {
    const DirectoryCase cases[] = {
        {"made by another after we looked", Fail(EEXIST), {}, 183},
        {"made by another after its parents", Fail(ENOENT), Fail(EEXIST), 183},
        {"parents removed by another", Fail(ENOENT), Fail(ENOENT), 3},
        {"no room", Fail(ENOSPC), {}, 112},
        {"a read-only file system", Fail(EROFS), {}, 19},
        {"not for us", Fail(EACCES), {}, 5},
        {"nothing in the way", Fail(ENOENT), kReal, 0},
    };
    for (const DirectoryCase& row : cases) {
        SCOPED_TRACE(row.pszWhat);
        const TempDirectory directory;
        const std::string strPath = directory.Path("a/b");
        std::vector<Outcome> outcomes{row.first};
        if (row.afterwards) {
            const auto cParents = std::count(strPath.begin() + 1, strPath.end(), '/');
            outcomes.insert(outcomes.end(), static_cast<size_t>(cParents), kReal);
            outcomes.push_back(*row.afterwards);
        }
        SystemCalls calls;
        calls.Script("mkdir", outcomes);
        EXPECT_EQ(SHCreateDirectoryExW(nullptr, std::wstring(strPath.begin(), strPath.end()).c_str(), nullptr),
                  row.nResult);
    }
}

// The top directories may be in a read-only file system. There mkdir may fail before it checks whether they exist.
TEST_F(SystemCallTest, AcceptsAnExistingParentThatMkdirRefuses) {
    const std::string strPath = m_directory.Path("a/b");
    SystemCalls calls;
    calls.Script("mkdir", {Fail(ENOENT), Fail(EROFS)});
    EXPECT_EQ(SHCreateDirectoryExW(nullptr, std::wstring(strPath.begin(), strPath.end()).c_str(), nullptr), 0);
    EXPECT_TRUE(std::filesystem::is_directory(strPath));
}

TEST_F(SystemCallTest, AProfileThatCannotBeReadGivesTheDefault) {
    const std::string strName = m_directory.Write("x.ini", "[s]\nk=5\n");
    struct Row {
        const char* pszCall;
        std::vector<Outcome> outcomes;
        UINT uResult;
    };
    const Row rows[] = {
        {"pread", {Fail(EINTR), Short(1), Fail(EINTR), Short(2)}, 5},
        {"pread", {Fail(EIO)}, 1},
        {"pread", {Short(7), Fail(EIO)}, 1},
        {"fstat", {Fail(EIO)}, 1},
        {"open", {Fail(EACCES)}, 1},
    };
    for (const Row& row : rows) {
        SystemCalls calls;
        calls.Script(row.pszCall, row.outcomes);
        EXPECT_EQ(GetPrivateProfileIntA("s", "k", 1, strName.c_str()), row.uResult) << row.pszCall;
    }
}

// The log opens its file like this.
TEST_F(SystemCallTest, AFileOfUnknownSizeIsNotAtItsEnd) {
    const std::string strName = m_directory.Path("file");
    CVexFile file;
    DWORD dwError = 0;
    ASSERT_TRUE(file.OpenFile(std::wstring(strName.begin(), strName.end()).c_str(), dwError));
    {
        SystemCalls calls;
        calls.Script("lseek", {Fail(EIO)});
        EXPECT_FALSE(file.SeekToEnd());
    }
    EXPECT_TRUE(file.SeekToEnd());
}

// Then the log does not read a large file as a whole.
TEST_F(SystemCallTest, AFileOfUnknownOwnerMayBeWrittenByOthers) {
    const std::string strName = m_directory.Write("owned", "");
    ASSERT_EQ(chmod(strName.c_str(), 0600), 0);
    CVexFile file;
    DWORD dwError = 0;
    ASSERT_TRUE(file.OpenFile(std::wstring(strName.begin(), strName.end()).c_str(), dwError));
    EXPECT_FALSE(file.MayOthersWrite());
    ASSERT_EQ(chmod(strName.c_str(), 0620), 0);
    EXPECT_TRUE(file.MayOthersWrite());
    ASSERT_EQ(chmod(strName.c_str(), 0600), 0);
    if (geteuid() == 0) {
        ASSERT_EQ(chown(strName.c_str(), 1000, 0), 0);
        EXPECT_TRUE(file.MayOthersWrite());
        ASSERT_EQ(chown(strName.c_str(), 0, 0), 0);
    }
    EXPECT_FALSE(file.MayOthersWrite());
    std::filesystem::remove(strName);
    EXPECT_TRUE(file.MayOthersWrite());
}

}  // namespace
