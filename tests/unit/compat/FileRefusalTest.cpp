// Names that VexCreateFile refuses, and handles that are not open files.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <climits>
#include <vector>

#include "ChildProcess.h"
#include "SocketFile.h"
#include "TempDirectory.h"
#include "Users.h"
#include "VEXCompat.h"

namespace {

class FileRefusal : public testing::Test {
protected:
    void ExpectRefused(const std::string& strName, DWORD dwError) {
        CloseHandle(nullptr);  // another last error
        EXPECT_EQ(VexCreateFile(strName.c_str()), INVALID_HANDLE_VALUE) << strName;
        EXPECT_EQ(GetLastError(), dwError) << strName;
    }

    const TempDirectory m_directory;
};

TEST_F(FileRefusal, RefusesWhatIsNotARegularFile) {
    ASSERT_EQ(mkfifo(m_directory.Path("pipe").c_str(), 0600), 0);
    ExpectRefused(m_directory.Path("pipe"), ERROR_ACCESS_DENIED);
    ExpectRefused(m_directory.Path(), ERROR_ACCESS_DENIED);
    ExpectRefused("/", ERROR_ACCESS_DENIED);
    ExpectRefused("/dev/null", ERROR_ACCESS_DENIED);
    ExpectRefused("/dev/full", ERROR_ACCESS_DENIED);
    ExpectRefused("/dev/tty", ERROR_ACCESS_DENIED);

    const std::string strSocket = m_directory.Path("socket");
    const int nSocket = MakeSocket(strSocket);
    ExpectRefused(strSocket, ERROR_ACCESS_DENIED);
    close(nSocket);
}

// In a directory like /tmp the link may be another user's.
TEST_F(FileRefusal, DoesNotFollowALink) {
    m_directory.Write("target", "untouched");
    ASSERT_EQ(symlink("target", m_directory.Path("link").c_str()), 0);
    ASSERT_EQ(symlink("nowhere", m_directory.Path("dangling").c_str()), 0);
    ExpectRefused(m_directory.Path("link"), ERROR_ACCESS_DENIED);
    ExpectRefused(m_directory.Path("dangling"), ERROR_ACCESS_DENIED);
    EXPECT_FALSE(std::filesystem::exists(m_directory.Path("nowhere")));
    ASSERT_EQ(link(m_directory.Path("target").c_str(), m_directory.Path("hard").c_str()), 0);
    ExpectRefused(m_directory.Path("hard"), ERROR_ACCESS_DENIED);
    ASSERT_EQ(unlink(m_directory.Path("target").c_str()), 0);
    EXPECT_TRUE(CloseHandle(VexCreateFile(m_directory.Path("hard").c_str())));  // now its only name
}

TEST_F(FileRefusal, RefusesNamesThatLeadNowhere) {
    m_directory.Write("file", "x");
    ExpectRefused(m_directory.Path("missing/log"), ERROR_PATH_NOT_FOUND);
    ExpectRefused(m_directory.Path("file/log"), ERROR_PATH_NOT_FOUND);
    ExpectRefused("", ERROR_PATH_NOT_FOUND);
    ExpectRefused(m_directory.Path(std::string(256, 'n')), ERROR_FILENAME_EXCED_RANGE);
    ExpectRefused("/" + std::string(PATH_MAX, '/') + "log", ERROR_FILENAME_EXCED_RANGE);
    EXPECT_EQ(VexCreateFile(nullptr), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}

TEST_F(FileRefusal, NeedsPermission) {
    const std::string strName = m_directory.Write("log", "x");
    ASSERT_EQ(chmod(strName.c_str(), 0444), 0);
    ASSERT_EQ(chmod(m_directory.Path().c_str(), 0555), 0);
    ExpectChildPasses([&] {
        EXPECT_TRUE(BecomeUser(kSomebody));
        ExpectRefused(strName, ERROR_ACCESS_DENIED);
        ExpectRefused(m_directory.Path("new"), ERROR_ACCESS_DENIED);
    });
    EXPECT_FALSE(std::filesystem::exists(m_directory.Path("new")));
    ASSERT_EQ(chmod(m_directory.Path().c_str(), 0700), 0);
}

// The directory is writable for all, like /tmp. There systems refuse O_CREAT for an existing file of another user, so
// the toolkit opens root's file without it.
TEST_F(FileRefusal, OpensAWorldWritableFileOnlyOfTheUserOrOfRoot) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "skipped: only root can give a file to another user";
    }
    constexpr uid_t kAnotherUser = 4711;
    const std::string strName = m_directory.Write("log", "x");
    ASSERT_EQ(chmod(strName.c_str(), 0666), 0);
    ASSERT_EQ(chmod(m_directory.Path().c_str(), 01777), 0);
    struct Row {
        uid_t owner;
        bool bAsRoot;
        bool bOpened;
    };
    for (const Row& row : {Row{0, false, true}, Row{kAnotherUser, false, false}, Row{kSomebody, false, true},
                           Row{0, true, true}, Row{kAnotherUser, true, false}}) {
        SCOPED_TRACE(std::to_string(row.owner) + (row.bAsRoot ? ", opened by root" : ", opened by a user"));
        ASSERT_EQ(chown(strName.c_str(), row.owner, static_cast<gid_t>(-1)), 0);
        ExpectChildPasses([&] {
            EXPECT_TRUE(row.bAsRoot || BecomeUser(kSomebody));
            if (!row.bOpened) {
                ExpectRefused(strName, ERROR_ACCESS_DENIED);
                return;
            }
            const HANDLE hFile = VexCreateFile(strName.c_str());
            EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
            EXPECT_TRUE(CloseHandle(hFile));
        });
    }
}

TEST_F(FileRefusal, ReportsTooManyOpenFiles) {
    ExpectChildPasses([&] {
        const rlimit limit{16, 16};
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
        std::vector<HANDLE> handles;
        for (int i = 0; i < 20; ++i) {
            const HANDLE hFile = VexCreateFile(m_directory.Path("f" + std::to_string(i)).c_str());
            if (hFile == INVALID_HANDLE_VALUE) {
                EXPECT_EQ(GetLastError(), ERROR_TOO_MANY_OPEN_FILES);
                break;
            }
            handles.push_back(hFile);
        }
        EXPECT_LT(handles.size(), 16U);
        EXPECT_FALSE(handles.empty());
        EXPECT_TRUE(CloseHandle(handles.front()));
        EXPECT_TRUE(CloseHandle(VexCreateFile(m_directory.Path("again").c_str())));
    });
}

// ---- Handles ----

// The results of all functions that can fail, for a wrong handle.
struct Answer {
    const char* pszFunction;
    BOOL bResult;
    DWORD dwError;
};

std::vector<Answer> AskEverything(HANDLE hFile) {
    std::vector<Answer> answers;
    const auto ask = [&answers](const char* pszFunction, auto function) {
        VexCreateFile(nullptr);  // another last error
        const BOOL bResult = function();
        answers.push_back({pszFunction, bResult, GetLastError()});
    };
    char buffer[4] = {};
    DWORD cbRead = 99;
    DWORD cbWritten = 99;
    LONGLONG cbSize = 99;
    ask("ReadFile", [&] { return ReadFile(hFile, buffer, 4, &cbRead, nullptr); });
    ask("ReadFile of nothing", [&] { return ReadFile(hFile, nullptr, 0, nullptr, nullptr); });
    ask("WriteFile", [&] { return WriteFile(hFile, "abcd", 4, &cbWritten, nullptr); });
    ask("WriteFile of nothing", [&] { return WriteFile(hFile, nullptr, 0, nullptr, nullptr); });
    ask("SetFilePointerEx", [&] { return SetFilePointerEx(hFile, LARGE_INTEGER{}, nullptr, FILE_BEGIN); });
    ask("GetFileSizeEx", [&] { return GetFileSizeEx(hFile, &cbSize); });
    ask("GetFileSizeEx to nowhere", [&] { return GetFileSizeEx(hFile, nullptr); });
    ask("FlushFileBuffers", [&] { return FlushFileBuffers(hFile); });
    ask("SetEndOfFile", [&] { return SetEndOfFile(hFile); });
    ask("CloseHandle", [&] { return CloseHandle(hFile); });
    EXPECT_EQ(cbRead, 0U);
    EXPECT_EQ(cbWritten, 0U);
    EXPECT_EQ(cbSize, 99);
    return answers;
}

TEST_F(FileRefusal, WrongHandlesFailEverywhere) {
    const HANDLE hOpen = VexCreateFile(m_directory.Path("open").c_str());
    const HANDLE hStale = VexCreateFile(m_directory.Path("stale").c_str());
    ASSERT_TRUE(CloseHandle(hStale));
    int nOnStack = 0;
    const auto nOpen = reinterpret_cast<std::uintptr_t>(hOpen);
    for (const std::uintptr_t nWrong :
         {std::uintptr_t{0}, ~std::uintptr_t{0}, std::uintptr_t{1}, std::uintptr_t{2}, std::uintptr_t{3},
          std::uintptr_t{4}, std::uintptr_t{0xFFFFFFFF}, nOpen + 1, nOpen - 1, nOpen + 4000, nOpen - 4,
          nOpen ^ (std::uintptr_t{1} << 40), nOpen & 0xFFFFFFFF, reinterpret_cast<std::uintptr_t>(hStale),
          reinterpret_cast<std::uintptr_t>(&nOnStack), reinterpret_cast<std::uintptr_t>(GetProcessHeap())}) {
        for (const Answer& answer : AskEverything(reinterpret_cast<HANDLE>(nWrong))) {
            EXPECT_EQ(answer.bResult, FALSE) << answer.pszFunction << " " << nWrong;
            EXPECT_EQ(answer.dwError, ERROR_INVALID_HANDLE) << answer.pszFunction << " " << nWrong;
        }
    }
    DWORD cb = 0;
    EXPECT_TRUE(WriteFile(hOpen, "x", 1, &cb, nullptr)) << "the wrong handles did no harm";
    EXPECT_TRUE(CloseHandle(hOpen));
    EXPECT_FALSE(CloseHandle(hOpen));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_EQ(ReadWholeFile(m_directory.Path("open")), "x");
}

TEST_F(FileRefusal, AHandleIsNotUsedTwice) {
    const HANDLE hFirst = VexCreateFile(m_directory.Path("f").c_str());
    ASSERT_TRUE(CloseHandle(hFirst));
    for (int i = 0; i < 100; ++i) {
        const HANDLE hNext = VexCreateFile(m_directory.Path("f").c_str());
        EXPECT_NE(hNext, hFirst);
        EXPECT_FALSE(FlushFileBuffers(hFirst));
        EXPECT_TRUE(CloseHandle(hNext));
    }
}

}  // namespace
