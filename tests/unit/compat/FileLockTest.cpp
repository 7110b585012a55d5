// An open file is locked: others cannot open it. A fork does not prolong the lock and does not end it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "ChildProcess.h"
#include "TempDirectory.h"
#include "VEXCompat.h"
#include "posix/FileDescriptor.h"

namespace {

class FileLockTest : public testing::Test {
protected:
    bool IsLocked() const {
        const vexposix::FileDescriptor file(open(m_strName.c_str(), O_RDWR | O_CLOEXEC));
        EXPECT_TRUE(file.IsOpen());
        return flock(file.Get(), LOCK_EX | LOCK_NB) != 0;
    }

    const TempDirectory m_directory;
    const std::string m_strName = m_directory.Path("log");
    const HANDLE m_hFile = VexCreateFile(m_strName.c_str());
};

TEST_F(FileLockTest, LastsAsLongAsTheFileIsOpen) {
    EXPECT_TRUE(IsLocked());
    EXPECT_TRUE(CloseHandle(m_hFile));
    EXPECT_FALSE(IsLocked());
}

// A writer that flushes in the middle of a record keeps its lock.
TEST_F(FileLockTest, AFlushOfWrittenBytesKeepsIt) {
    DWORD cb = 0;
    EXPECT_TRUE(WriteFile(m_hFile, "x", 1, &cb, nullptr));
    EXPECT_TRUE(FlushFileBuffers(m_hFile));
    EXPECT_TRUE(IsLocked());
    EXPECT_TRUE(FlushFileBuffers(m_hFile));
    EXPECT_FALSE(IsLocked());
    EXPECT_TRUE(CloseHandle(m_hFile));
}

TEST_F(FileLockTest, ASecondFlushReleasesItAndTheNextUseTakesItAgain) {
    LONGLONG cbSize = 0;
    DWORD cb = 0;
    char ch = 0;
    const std::function<BOOL()> uses[] = {
        [&] { return GetFileSizeEx(m_hFile, &cbSize); }, [&] { return WriteFile(m_hFile, "x", 1, &cb, nullptr); },
        [&] { return ReadFile(m_hFile, &ch, 1, &cb, nullptr); }, [&] { return SetEndOfFile(m_hFile); }};
    for (const auto& fnUse : uses) {
        EXPECT_TRUE(FlushFileBuffers(m_hFile));
        EXPECT_TRUE(FlushFileBuffers(m_hFile));
        EXPECT_FALSE(IsLocked());
        EXPECT_TRUE(fnUse());
        EXPECT_TRUE(IsLocked());
    }
    EXPECT_TRUE(CloseHandle(m_hFile));
    EXPECT_FALSE(IsLocked());
}

TEST_F(FileLockTest, StaysWhenAChildFlushesTheFile) {
    ExpectChildPasses([&] { EXPECT_TRUE(FlushFileBuffers(m_hFile)); });
    EXPECT_TRUE(IsLocked());
    EXPECT_TRUE(CloseHandle(m_hFile));
}

TEST_F(FileLockTest, EndsWhenAChildStillHasTheFile) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const vexposix::FileDescriptor fromParent(ends[0]);
    std::optional<vexposix::FileDescriptor> toChild(std::in_place, ends[1]);
    const pid_t nChild = fork();
    if (nChild == 0) {
        toChild.reset();
        char ch = 0;
        _exit(read(fromParent.Get(), &ch, 1) == 0 ? 0 : 1);  // until the parent is done
    }
    ASSERT_GT(nChild, 0);
    EXPECT_TRUE(IsLocked());
    EXPECT_TRUE(CloseHandle(m_hFile));
    EXPECT_FALSE(IsLocked());
    toChild.reset();
    int nStatus = 0;
    EXPECT_EQ(waitpid(nChild, &nStatus, 0), nChild);
    EXPECT_EQ(nStatus, 0);
}

TEST_F(FileLockTest, StaysWhenAChildClosesTheFile) {
    ExpectChildPasses([&] { EXPECT_TRUE(CloseHandle(m_hFile)); });
    EXPECT_TRUE(IsLocked());
    EXPECT_TRUE(CloseHandle(m_hFile));
    EXPECT_FALSE(IsLocked());
}

// A file that the child opens itself is locked until the child closes it.
TEST_F(FileLockTest, AChildsLockEndsWithItsFile) {
    EXPECT_TRUE(CloseHandle(m_hFile));
    ExpectChildPasses([&] {
        const HANDLE hFile = VexCreateFile(m_strName.c_str());
        EXPECT_TRUE(IsLocked());
        ExpectChildPasses([] {});
        EXPECT_TRUE(CloseHandle(hFile));
        EXPECT_FALSE(IsLocked());
    });
}

}  // namespace
