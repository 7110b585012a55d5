#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "ChildProcess.h"
#include "SocketFile.h"
#include "TempDirectory.h"
#include "Users.h"
#include "VEXCompat.h"

namespace {

const std::string kText = "[loginfo]\nlogLevel=5\n";

UINT LogLevel(const std::string& strPath, INT nDefault = 1) {
    return GetPrivateProfileIntA("loginfo", "logLevel", nDefault, strPath.c_str());
}

class ProfileTest : public testing::Test {
protected:
    void ExpectDefault(const std::string& strPath, DWORD dwError) {
        CloseHandle(nullptr);  // another last error
        EXPECT_EQ(LogLevel(strPath), 1U) << strPath;
        EXPECT_EQ(GetLastError(), dwError) << strPath;
    }

    const TempDirectory m_directory;
};

TEST_F(ProfileTest, ReadsTheValueFromTheFile) {
    const std::string strPath = m_directory.Write("log.ini", kText);
    EXPECT_EQ(LogLevel(strPath), 5U);
    EXPECT_EQ(GetPrivateProfileIntA("LOGINFO", "loglevel", 1, strPath.c_str()), 5U);
    m_directory.Write("log.ini", "[loginfo]\nlogLevel=6\n");
    EXPECT_EQ(LogLevel(strPath), 6U) << "nothing is kept between calls";
}

TEST_F(ProfileTest, ReturnsTheDefaultUnchanged) {
    for (const INT nDefault : {0, 1, -1, INT_MAX, INT_MIN}) {
        EXPECT_EQ(LogLevel(m_directory.Path("missing"), nDefault), static_cast<UINT>(nDefault));
    }
}

TEST_F(ProfileTest, WhatIsMissingGivesTheDefault) {
    const std::string strPath = m_directory.Write("log.ini", kText);
    ExpectDefault(m_directory.Path("missing.ini"), ERROR_FILE_NOT_FOUND);
    ExpectDefault(m_directory.Path("no/log.ini"), ERROR_FILE_NOT_FOUND);
    ExpectDefault(strPath + "/log.ini", ERROR_PATH_NOT_FOUND);
    ExpectDefault(m_directory.Write("empty.ini", ""), ERROR_FILE_NOT_FOUND);
    ExpectDefault("", ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(GetPrivateProfileIntA("other", "logLevel", 3, strPath.c_str()), 3U);
    EXPECT_EQ(GetPrivateProfileIntA("loginfo", "other", 3, strPath.c_str()), 3U);
    EXPECT_EQ(GetPrivateProfileIntA(nullptr, "logLevel", 3, strPath.c_str()), 3U);
    EXPECT_EQ(GetPrivateProfileIntA("loginfo", nullptr, 3, strPath.c_str()), 3U);
    EXPECT_EQ(GetPrivateProfileIntA("loginfo", "logLevel", 3, nullptr), 3U);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}

TEST_F(ProfileTest, OnlyRegularFilesAreRead) {
    const std::string strPipe = m_directory.Path("pipe");
    ASSERT_EQ(mkfifo(strPipe.c_str(), 0600), 0);
    ExpectDefault(strPipe, ERROR_ACCESS_DENIED);
    ExpectDefault(m_directory.Path(), ERROR_ACCESS_DENIED);
    ExpectDefault("/dev/null", ERROR_ACCESS_DENIED);
    ExpectDefault("/dev/zero", ERROR_ACCESS_DENIED);

    const std::string strSocket = m_directory.Path("socket");
    const int nSocket = MakeSocket(strSocket);
    ExpectDefault(strSocket, ERROR_ACCESS_DENIED);
    close(nSocket);
}

// The administrator may keep the file elsewhere.
TEST_F(ProfileTest, ALinkIsFollowed) {
    m_directory.Write("elsewhere.ini", kText);
    ASSERT_EQ(symlink("elsewhere.ini", m_directory.Path("log.ini").c_str()), 0);
    EXPECT_EQ(LogLevel(m_directory.Path("log.ini")), 5U);
    ASSERT_EQ(symlink("loop", m_directory.Path("loop").c_str()), 0);
    ExpectDefault(m_directory.Path("loop"), ERROR_ACCESS_DENIED);
}

TEST_F(ProfileTest, WithoutPermission) {
    const std::string strPath = m_directory.Write("log.ini", kText);
    ASSERT_EQ(chmod(strPath.c_str(), 0), 0);
    ASSERT_EQ(chmod(m_directory.Path().c_str(), 0755), 0);
    ExpectChildPasses([&] {
        EXPECT_TRUE(BecomeUser(kSomebody));
        ExpectDefault(strPath, ERROR_ACCESS_DENIED);
    });
}

TEST_F(ProfileTest, ReadsFilesUpToOneMebibyte) {
    constexpr size_t kLimit = 1 << 20;
    const std::string strRest = kText + std::string(kLimit - kText.size(), '\n');
    EXPECT_EQ(LogLevel(m_directory.Write("limit.ini", strRest)), 5U);
    ExpectDefault(m_directory.Write("above.ini", strRest + '\n'), ERROR_FILE_TOO_LARGE);
    const std::string strSparse = m_directory.Write("sparse.ini", kText);
    ASSERT_EQ(truncate(strSparse.c_str(), off_t{1} << 40), 0);
    ExpectDefault(strSparse, ERROR_FILE_TOO_LARGE);
}

TEST_F(ProfileTest, NoDescriptorIsLeftOpen) {
    const std::string strPath = m_directory.Write("log.ini", kText);
    const auto nOpen = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                             std::filesystem::directory_iterator());
    };
    const auto nBefore = nOpen();
    for (const std::string& strName : {strPath, m_directory.Path(), std::string("/dev/null")}) {
        LogLevel(strName);
    }
    EXPECT_EQ(nOpen(), nBefore);
}

}  // namespace
