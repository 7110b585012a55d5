#include "posix/LockFile.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>

#include <cerrno>

#include "TempDirectory.h"
#include "posix/FileDescriptor.h"

namespace vexposix {
namespace {

using std::chrono_literals::operator""ms;
using std::chrono_literals::operator""h;

class LockFileTest : public testing::Test {
protected:
    FileDescriptor Open() const { return FileDescriptor(open(m_strPath.c_str(), O_RDWR | O_CLOEXEC)); }

    const TempDirectory m_directory;
    const std::string m_strPath = m_directory.Write("file", "");
};

TEST_F(LockFileTest, TakesAFreeLockWithoutWaiting) {
    const FileDescriptor file = Open();
    EXPECT_EQ(LockFile(file.Get(), LOCK_EX, 0ms), 0);
    EXPECT_EQ(LockFile(file.Get(), LOCK_SH, 0ms), 0);
    EXPECT_EQ(LockFile(Open().Get(), LOCK_SH, 0ms), 0);
}

TEST_F(LockFileTest, GivesUpAfterTheBound) {
    const FileDescriptor holder = Open();
    ASSERT_EQ(LockFile(holder.Get(), LOCK_EX, 0ms), 0);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(LockFile(Open().Get(), LOCK_SH, 50ms), EWOULDBLOCK);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 50ms);
}

TEST_F(LockFileTest, TakesALockThatBecomesFree) {
    FileDescriptor holder = Open();
    ASSERT_EQ(LockFile(holder.Get(), LOCK_EX, 0ms), 0);
    std::jthread thread([&] { holder = FileDescriptor(); });
    EXPECT_EQ(LockFile(Open().Get(), LOCK_EX, 1h), 0);
}

TEST_F(LockFileTest, ReportsADescriptorThatCannotBeLocked) {
    EXPECT_EQ(LockFile(-1, LOCK_EX, 1h), EBADF);
}

TEST(TryForTest, TriesOnceWithoutTime) {
    int cTries = 0;
    EXPECT_FALSE(TryFor(0ms, [&] { return ++cTries > 1; }));
    EXPECT_EQ(cTries, 1);
    EXPECT_TRUE(TryFor(1h, [&] { return ++cTries == 5; }));
}

}  // namespace
}  // namespace vexposix
