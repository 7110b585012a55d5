#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <vector>

#include "ChildProcess.h"
#include "ScopedLocale.h"
#include "TempDirectory.h"
#include "Threads.h"
#include "Users.h"
#include "VEXCompat.h"

namespace {

std::wstring Wide(const std::string& strAscii) {
    return {strAscii.begin(), strAscii.end()};
}

// ---- PathRemoveFileSpecW ----

struct CutCase {
    const wchar_t* pszPath;
    const wchar_t* pszResult;
    BOOL bCut;
};

class PathRemoveFileSpec : public testing::TestWithParam<CutCase> {};

TEST_P(PathRemoveFileSpec, CutsTheLastComponent) {
    wchar_t szPath[260] = {};
    ASSERT_EQ(wcscpy_s(szPath, 260, GetParam().pszPath), 0);
    EXPECT_EQ(PathRemoveFileSpecW(szPath) != FALSE, GetParam().bCut != FALSE);
    EXPECT_STREQ(szPath, GetParam().pszResult);
}

INSTANTIATE_TEST_SUITE_P(Paths, PathRemoveFileSpec,
                         testing::Values(CutCase{L"/tmp/PILog.txt", L"/tmp", TRUE},     //
                                         CutCase{L"/PILog.txt", L"/", TRUE},            //
                                         CutCase{L"/a/b/c", L"/a/b", TRUE},             //
                                         CutCase{L"/a/b/", L"/a/b", TRUE},              //
                                         CutCase{L"/a//b", L"/a", TRUE},                //
                                         CutCase{L"/a/b//", L"/a/b", TRUE},             //
                                         CutCase{L"//b", L"/", TRUE},                   //
                                         CutCase{L"a/b", L"a", TRUE},                   //
                                         CutCase{L"./b", L".", TRUE},                   //
                                         CutCase{L" /tmp/log.2024", L" /tmp", TRUE},    //
                                         CutCase{L"/a\\b", L"/", TRUE},                 //
                                         CutCase{L"/\u65E5/\u672C", L"/\u65E5", TRUE},  //
                                         CutCase{L"name", L"", TRUE},                   //
                                         CutCase{L"/", L"/", FALSE},                    //
                                         CutCase{L"//", L"/", TRUE},                    //
                                         CutCase{L"", L"", FALSE}));

TEST(PathRemoveFileSpec, NullIsNothingToCut) {
    EXPECT_EQ(PathRemoveFileSpecW(nullptr), FALSE);
}

TEST(PathRemoveFileSpec, AgainAndAgainEndsAtTheRoot) {
    wchar_t szPath[260] = {};
    ASSERT_EQ(wcscpy_s(szPath, 260, L"/a/b/c"), 0);
    int nCuts = 0;
    while (PathRemoveFileSpecW(szPath) != FALSE) {
        ASSERT_LT(++nCuts, 10);
    }
    EXPECT_EQ(nCuts, 3);
    EXPECT_STREQ(szPath, L"/");
}

// ---- PathIsDirectoryW and SHCreateDirectoryExW ----

class DirectoryTest : public testing::Test {
protected:
    static int Make(const std::wstring& strPath) {
        CloseHandle(nullptr);  // another last error
        const int nResult = SHCreateDirectoryExW(nullptr, strPath.c_str(), nullptr);
        EXPECT_EQ(GetLastError(), nResult == 0 ? ERROR_INVALID_HANDLE : static_cast<DWORD>(nResult));
        return nResult;
    }
    std::wstring Inside(const std::wstring& strName) const { return Wide(m_directory.Path()) + L"/" + strName; }
    static bool IsDirectory(const std::wstring& strPath) {
        return std::filesystem::is_directory(std::string(strPath.begin(), strPath.end()));
    }

    const TempDirectory m_directory;
};

TEST_F(DirectoryTest, TellsDirectoriesFromOtherNames) {
    m_directory.Write("file", "x");
    ASSERT_EQ(symlink(m_directory.Path().c_str(), m_directory.Path("link").c_str()), 0);
    ASSERT_EQ(symlink("nowhere", m_directory.Path("dangling").c_str()), 0);
    for (const std::wstring& strPath :
         {std::wstring(L"/"), std::wstring(L"."), Inside(L""), Inside(L"."), Inside(L"link")}) {
        EXPECT_NE(PathIsDirectoryW(strPath.c_str()), FALSE) << std::string(strPath.begin(), strPath.end());
    }
    struct Row {
        std::wstring strPath;
        DWORD dwError;
    };
    for (const Row& row :
         {Row{Inside(L"missing"), 2}, Row{Inside(L"file"), 267}, Row{Inside(L"file/x"), 3}, Row{Inside(L"dangling"), 2},
          Row{L"", 2}, Row{L"/dev/null", 267}, Row{Inside(std::wstring(300, L'n')), 206}}) {
        EXPECT_EQ(PathIsDirectoryW(row.strPath.c_str()), FALSE);
        EXPECT_EQ(GetLastError(), row.dwError) << std::string(row.strPath.begin(), row.strPath.end());
    }
    EXPECT_EQ(PathIsDirectoryW(nullptr), FALSE);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}

TEST_F(DirectoryTest, MakesAllParents) {
    for (const wchar_t* pszName :
         {L"one", L"two/three", L"four/five/six/seven", L"with/slash/", L"with//two///slashes//", L"dots/./in/../it"}) {
        EXPECT_EQ(Make(Inside(pszName)), 0);
        EXPECT_TRUE(IsDirectory(Inside(pszName)));
        EXPECT_EQ(Make(Inside(pszName)), static_cast<int>(ERROR_ALREADY_EXISTS));
    }
    EXPECT_EQ(Make(Inside(L"two/eight/nine")), 0) << "some of the parents exist";
}

TEST_F(DirectoryTest, AnyExistingNameIsReportedAsExisting) {
    m_directory.Write("file", "x");
    ASSERT_EQ(symlink("nowhere", m_directory.Path("dangling").c_str()), 0);
    for (const std::wstring& strPath : {std::wstring(L"/"), std::wstring(L"/tmp/"), std::wstring(L"."), Inside(L""),
                                        Inside(L"file"), Inside(L"dangling")}) {
        EXPECT_EQ(Make(strPath), static_cast<int>(ERROR_ALREADY_EXISTS));
    }
    EXPECT_EQ(ReadWholeFile(m_directory.Path("file")), "x");
    EXPECT_FALSE(std::filesystem::exists(m_directory.Path("nowhere")));
}

TEST_F(DirectoryTest, AFailureGivesItsReason) {
    m_directory.Write("file", "x");
    EXPECT_EQ(Make(Inside(L"file/sub")), static_cast<int>(ERROR_PATH_NOT_FOUND));
    EXPECT_EQ(Make(Inside(L"file/sub/sub")), static_cast<int>(ERROR_PATH_NOT_FOUND));
    EXPECT_EQ(Make(L""), static_cast<int>(ERROR_BAD_PATHNAME));
    EXPECT_EQ(Make(Inside(std::wstring(256, L'n'))), static_cast<int>(ERROR_FILENAME_EXCED_RANGE));
    EXPECT_EQ(Make(Inside(L"new/" + std::wstring(256, L'n'))), static_cast<int>(ERROR_FILENAME_EXCED_RANGE));
    EXPECT_EQ(SHCreateDirectoryExW(nullptr, nullptr, nullptr), static_cast<int>(ERROR_INVALID_PARAMETER));
}

TEST_F(DirectoryTest, ThePathsLengthAtTheLimit) {
    constexpr size_t kLimit = PATH_MAX;  // with the terminator
    for (const size_t cch : {kLimit - 2, kLimit - 1, kLimit, kLimit + 1, kLimit + 2, kLimit * 3}) {
        std::wstring strPath = L"/tmp";
        while (strPath.size() < cch) {
            strPath += L"/.";
        }
        strPath.resize(cch, L'/');
        const bool bFits = cch < kLimit;
        EXPECT_EQ(PathIsDirectoryW(strPath.c_str()) != FALSE, bFits) << cch;
        EXPECT_EQ(Make(strPath), static_cast<int>(bFits ? ERROR_ALREADY_EXISTS : ERROR_FILENAME_EXCED_RANGE)) << cch;
    }
}

TEST_F(DirectoryTest, NewOnesArePrivateToTheOwner) {
    const mode_t nBefore = umask(0);
    EXPECT_EQ(Make(Inside(L"a/b")), 0);
    umask(0277);
    EXPECT_EQ(Make(Inside(L"masked")), 0);
    umask(nBefore);
    const auto modeOf = [this](const char* pszName) {
        struct stat status {};
        stat(m_directory.Path(pszName).c_str(), &status);
        return status.st_mode & 07777;
    };
    EXPECT_EQ(modeOf("a"), 0700U);
    EXPECT_EQ(modeOf("a/b"), 0700U);
    EXPECT_EQ(modeOf("masked"), 0500U);
}

TEST_F(DirectoryTest, NeedsPermission) {
    ASSERT_EQ(Make(Inside(L"closed")), 0);
    ASSERT_EQ(chmod(m_directory.Path("closed").c_str(), 0), 0);
    ASSERT_EQ(chmod(m_directory.Path().c_str(), 0555), 0);
    ExpectChildPasses([&] {
        EXPECT_TRUE(BecomeUser(kSomebody));
        EXPECT_EQ(Make(Inside(L"new")), static_cast<int>(ERROR_ACCESS_DENIED));
        EXPECT_EQ(Make(Inside(L"new/deeper")), static_cast<int>(ERROR_ACCESS_DENIED));
        EXPECT_EQ(Make(Inside(L"closed/new")), static_cast<int>(ERROR_ACCESS_DENIED));
        EXPECT_EQ(PathIsDirectoryW(Inside(L"closed/new").c_str()), FALSE);
        EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
    });
    ASSERT_EQ(chmod(m_directory.Path().c_str(), 0700), 0);
    ASSERT_EQ(chmod(m_directory.Path("closed").c_str(), 0700), 0);
}

// The fallback name of a log file is relative, too: it begins with a blank.
TEST_F(DirectoryTest, RelativePathsStartFromTheCurrentDirectory) {
    ExpectChildPasses([&] {
        EXPECT_EQ(chdir(m_directory.Path().c_str()), 0);
        EXPECT_EQ(Make(L" /tmp"), 0);
        EXPECT_EQ(Make(L"x"), 0);
        EXPECT_EQ(Make(L"./y/z"), 0);
        EXPECT_NE(PathIsDirectoryW(L" /tmp"), FALSE);
    });
    for (const wchar_t* pszName : {L" /tmp", L"x", L"y/z"}) {
        EXPECT_TRUE(IsDirectory(Inside(pszName)));
    }
}

TEST_F(DirectoryTest, NamesInTheLocalesEncoding) {
    const std::wstring strName = Inside(L"\u65E5\u672C/\u00E9");
    {
        const ScopedLocale locale("C.UTF-8");
        EXPECT_EQ(Make(strName), 0);
        EXPECT_NE(PathIsDirectoryW(strName.c_str()), FALSE);
    }
    EXPECT_TRUE(std::filesystem::is_directory(m_directory.Path("\xE6\x97\xA5\xE6\x9C\xAC/\xC3\xA9")));
    const ScopedLocale locale("C");
    EXPECT_EQ(Make(strName), static_cast<int>(ERROR_NO_UNICODE_TRANSLATION));
    EXPECT_EQ(PathIsDirectoryW(strName.c_str()), FALSE);
    EXPECT_EQ(GetLastError(), ERROR_NO_UNICODE_TRANSLATION);
}

TEST_F(DirectoryTest, EightThreadsMakeTheSameTree) {
    std::vector<int> wrong(8, 0);
    OnThreads(8, [this, &wrong](int nThread) {
        for (int i = 0; i < 100; ++i) {
            const std::wstring strPath = Inside(L"t" + std::to_wstring(i) + L"/a/b/c/d");
            const int nResult = SHCreateDirectoryExW(nullptr, strPath.c_str(), nullptr);
            const bool bRight = nResult == 0 || nResult == static_cast<int>(ERROR_ALREADY_EXISTS);
            wrong[nThread] += !bRight || PathIsDirectoryW(strPath.c_str()) == FALSE;
        }
    });
    EXPECT_EQ(wrong, std::vector<int>(8, 0));
}

}  // namespace
