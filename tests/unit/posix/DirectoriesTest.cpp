#include "posix/Directories.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

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

}  // namespace
}  // namespace vexposix
