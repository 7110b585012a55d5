#include "posix/Directories.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "TempDirectory.h"

namespace vexposix {
namespace {

TEST(MakeDirectories, MakesMissingParentsWithTheMode) {
    const TempDirectory directory;
    std::string strPath = directory.Path("a//b/c");
    EXPECT_EQ(MakeDirectories(strPath.data(), 0700), 0);
    EXPECT_EQ(strPath, directory.Path("a//b/c"));
    for (const char* pszMade : {"a", "a/b", "a/b/c"}) {
        struct stat status {};
        ASSERT_EQ(stat(directory.Path(pszMade).c_str(), &status), 0) << pszMade;
        EXPECT_EQ(status.st_mode & 07777, 0700U) << pszMade;
    }
    EXPECT_EQ(MakeDirectories(strPath.data(), 0700), EEXIST);
}

TEST(MakeDirectories, CutsThePathAtTheParentThatCannotBeMade) {
    std::string strPath = "/proc/no/such/directory";
    EXPECT_EQ(MakeDirectories(strPath.data(), 0700), ENOENT);
    EXPECT_STREQ(strPath.c_str(), "/proc/no");
}

TEST(MakeDirectories, ReportsAFileOnTheWay) {
    const TempDirectory directory;
    directory.Write("file", "");
    std::string strPath = directory.Path("file/a");
    EXPECT_EQ(MakeDirectories(strPath.data(), 0700), ENOTDIR);
    std::string strEmpty;
    EXPECT_EQ(MakeDirectories(strEmpty.data(), 0700), ENOENT);
}

class EnterDirectoryTest : public testing::Test {
protected:
    int Enter(const char* pszName) const {
        const EnteredDirectory entered = EnterDirectory(m_parent.Get(), pszName);
        EXPECT_EQ(entered.descriptor.IsOpen(), entered.nErrno == 0) << pszName;
        return entered.nErrno;
    }

    const TempDirectory m_directory;
    const FileDescriptor m_parent{open(m_directory.Path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)};
};

TEST_F(EnterDirectoryTest, MakesAMissingDirectoryForItsOwnerOnly) {
    EXPECT_EQ(Enter("new"), 0);
    struct stat status {};
    ASSERT_EQ(stat(m_directory.Path("new").c_str(), &status), 0);
    EXPECT_TRUE(S_ISDIR(status.st_mode));
    EXPECT_EQ(status.st_mode & 0077, 0U);
    EXPECT_EQ(Enter("new"), 0);
}

TEST_F(EnterDirectoryTest, RefusesLinksAndFiles) {
    ASSERT_EQ(mkdir(m_directory.Path("real").c_str(), 0700), 0);
    ASSERT_EQ(symlink("real", m_directory.Path("link").c_str()), 0);
    m_directory.Write("file", "");
    EXPECT_EQ(Enter("link"), ELOOP);
    EXPECT_EQ(Enter("file"), ENOTDIR);
}

}  // namespace
}  // namespace vexposix
