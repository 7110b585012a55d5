#include "posix/ReplacementFile.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "TempDirectory.h"
#include "posix/FileIo.h"

namespace vexposix {
namespace {

class ReplacementFileTest : public testing::Test {
protected:
    bool Exists(const char* pszName) const { return std::filesystem::exists(m_directory.Path(pszName)); }

    const TempDirectory m_directory;
    const std::string m_strTarget = m_directory.Write("target", "old");
    const FileDescriptor m_parent{open(m_directory.Path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)};
};

TEST_F(ReplacementFileTest, TakesTheOtherFilesPlace) {
    {
        ReplacementFile file(m_parent.Get(), "new", 0640);
        ASSERT_TRUE(file.IsOpen());
        EXPECT_EQ(WriteAll(file.Descriptor(), "newer"), 0);
        EXPECT_EQ(ReadWholeFile(m_strTarget), "old");
        EXPECT_EQ(file.MoveTo("target"), 0);
    }
    EXPECT_EQ(ReadWholeFile(m_strTarget), "newer");
    EXPECT_FALSE(Exists("new"));
}

TEST_F(ReplacementFileTest, RemovesTheFileThatDidNotMove) {
    {
        const ReplacementFile file(m_parent.Get(), "new", 0600);
        EXPECT_TRUE(Exists("new"));
    }
    EXPECT_FALSE(Exists("new"));
    {
        ReplacementFile file(m_parent.Get(), "new", 0600);
        EXPECT_EQ(file.MoveTo("missing/target"), ENOENT);
    }
    EXPECT_FALSE(Exists("new"));
    EXPECT_EQ(ReadWholeFile(m_strTarget), "old");
}

// Closing may report what writing did not, such as a full disk of a file server.
TEST_F(ReplacementFileTest, DoesNotMoveAFileThatCannotBeClosed) {
    {
        ReplacementFile file(m_parent.Get(), "new", 0600);
        close(file.Descriptor());
        EXPECT_EQ(file.MoveSyncedTo("target"), EBADF);
    }
    EXPECT_FALSE(Exists("new"));
    EXPECT_EQ(ReadWholeFile(m_strTarget), "old");
}

TEST_F(ReplacementFileTest, LeavesAFileOfItsNameAlone) {
    {
        const ReplacementFile file(m_parent.Get(), "target", 0600);
        EXPECT_EQ(errno, EEXIST);
        EXPECT_FALSE(file.IsOpen());
    }
    EXPECT_EQ(ReadWholeFile(m_strTarget), "old");
}

}  // namespace
}  // namespace vexposix
