#include "posix/FileIo.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <thread>

#include "TempDirectory.h"
#include "posix/FileDescriptor.h"

namespace vexposix {
namespace {

class FileIo : public testing::Test {
protected:
    FileDescriptor Open(int nFlags) const { return FileDescriptor(open(m_strPath.c_str(), nFlags | O_CLOEXEC)); }

    const TempDirectory m_directory;
    const std::string m_strPath = m_directory.Write("file", "0123456789");
};

TEST_F(FileIo, ReadsAndWritesAtAPositionWithoutMovingTheDescriptor) {
    const FileDescriptor file = Open(O_RDWR);
    EXPECT_EQ(WriteAt(file.Get(), "abc", 3, 8).cb, 3U);
    std::array<char, 20> bytes{};
    const Transfer transfer = ReadAt(file.Get(), bytes.data(), bytes.size(), 6);
    EXPECT_EQ(std::string(bytes.data(), transfer.cb), "67abc");
    EXPECT_EQ(transfer.nErrno, 0);
    EXPECT_EQ(lseek(file.Get(), 0, SEEK_CUR), 0);
}

TEST_F(FileIo, ReportsWhatTheDescriptorCannotDo) {
    const FileDescriptor readOnly = Open(O_RDONLY);
    EXPECT_EQ(WriteAt(readOnly.Get(), "x", 1, 0).nErrno, EBADF);
    EXPECT_EQ(WriteAll(readOnly.Get(), "x"), EBADF);
    EXPECT_EQ(SetSize(readOnly.Get(), 1), EINVAL);
    char ch = 0;
    EXPECT_EQ(ReadAt(-1, &ch, 1, 0).nErrno, EBADF);
    EXPECT_EQ(ReadSome(-1, &ch, 1), -1);
    EXPECT_EQ(errno, EBADF);
    off_t cbSize = 7;
    EXPECT_EQ(GetSize(-1, cbSize), EBADF);
    EXPECT_EQ(cbSize, 7);
}

// Sends more than a pipe holds. nFlags: of both ends.
void SendThroughAPipe(int nFlags) {
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC | nFlags), 0);
    const FileDescriptor reader(ends[0]);
    FileDescriptor writer(ends[1]);
    const std::string strSent(1 << 20, 'x');
    std::string strReceived;
    std::jthread thread([&] {
        std::array<char, 5000> block{};
        for (ssize_t cb = 0; (cb = ReadSome(reader.Get(), block.data(), block.size())) > 0;) {
            strReceived.append(block.data(), static_cast<std::size_t>(cb));
        }
    });
    EXPECT_EQ(WriteAll(writer.Get(), strSent), 0);
    EXPECT_EQ(writer.Close(), 0);
    thread.join();
    EXPECT_EQ(strReceived, strSent);
}

TEST_F(FileIo, WriteAllWritesMoreThanAPipeHolds) {
    SendThroughAPipe(0);
}

// Each end gets EAGAIN: the writer when the pipe is full, the reader when it is empty.
TEST_F(FileIo, WaitsForAPipeThatDoesNotBlock) {
    SendThroughAPipe(O_NONBLOCK);
}

TEST_F(FileIo, WriteAllReportsAPipeWithoutAReader) {
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    close(ends[0]);
    const FileDescriptor writer(ends[1]);
    const auto before = std::signal(SIGPIPE, SIG_IGN);
    EXPECT_EQ(WriteAll(writer.Get(), "x"), EPIPE);
    static_cast<void>(std::signal(SIGPIPE, before));
}

TEST_F(FileIo, SetSizeCutsAndExtends) {
    const FileDescriptor file = Open(O_RDWR);
    EXPECT_EQ(SetSize(file.Get(), 4), 0);
    EXPECT_EQ(SetSize(file.Get(), 6), 0);
    EXPECT_EQ(ReadWholeFile(m_strPath), std::string("0123\0\0", 6));
    off_t cbSize = 0;
    EXPECT_EQ(GetSize(file.Get(), cbSize), 0);
    EXPECT_EQ(cbSize, 6);
}

TEST_F(FileIo, ADescriptorHasOneOwner) {
    FileDescriptor first = Open(O_RDONLY);
    const int nDescriptor = first.Get();
    FileDescriptor second(std::move(first));
    EXPECT_EQ(second.Get(), nDescriptor);
    second = FileDescriptor();
    EXPECT_FALSE(second.IsOpen());
    EXPECT_EQ(fcntl(nDescriptor, F_GETFD), -1);
    EXPECT_EQ(FileDescriptor().Close(), EBADF);
}

}  // namespace
}  // namespace vexposix
