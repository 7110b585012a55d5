#include "posix/OutputBuffer.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>

#include "TempDirectory.h"
#include "posix/FileDescriptor.h"

namespace vexposix {
namespace {

TEST(OutputBufferTest, WritesEachByteOnce) {
    const TempDirectory directory;
    const std::string strPath = directory.Write("file", "");
    const FileDescriptor file(open(strPath.c_str(), O_WRONLY | O_CLOEXEC));
    OutputBuffer output(file.Get());
    output.Append("one");
    EXPECT_EQ(output.Pending(), "one");
    output.Flush();
    EXPECT_EQ(output.Pending(), "");
    output.Append('2');
    output.Flush();
    output.Flush();
    EXPECT_EQ(ReadWholeFile(strPath), "one2");
}

TEST(OutputBufferTest, WritesWhenItIsFull) {
    constexpr std::size_t kCapacity = std::size_t{256} * 1024;
    const TempDirectory directory;
    const std::string strPath = directory.Write("file", "");
    const FileDescriptor file(open(strPath.c_str(), O_WRONLY | O_CLOEXEC));
    OutputBuffer output(file.Get());
    output.Append(std::string(kCapacity - 1, 'x'));
    output.WriteWhenFull();
    EXPECT_EQ(output.Length(), kCapacity - 1);
    output.Append('x');
    output.WriteWhenFull();
    EXPECT_EQ(output.Length(), 0U);
    EXPECT_EQ(ReadWholeFile(strPath).size(), kCapacity);
}

// What could not be written is not kept for the next time.
TEST(OutputBufferTest, NamesTheOutputThatFails) {
    const FileDescriptor full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    OutputBuffer output(full.Get(), "report.html");
    output.Append("x");
    try {
        output.Flush();
        ADD_FAILURE() << "nothing was thrown";
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code().value(), ENOSPC);
        EXPECT_TRUE(std::string_view(error.what()).starts_with("report.html: ")) << error.what();
    }
    EXPECT_EQ(output.Pending(), "");
}

TEST(OutputBufferTest, TellsAClosedOutputFromOtherFailures) {
    int nEnds[2] = {};
    ASSERT_EQ(pipe2(nEnds, O_CLOEXEC), 0);
    close(nEnds[0]);
    const FileDescriptor writer(nEnds[1]);
    const auto before = std::signal(SIGPIPE, SIG_IGN);
    OutputBuffer output(writer.Get());
    output.Append("x");
    EXPECT_THROW(output.Flush(), OutputClosed);
    static_cast<void>(std::signal(SIGPIPE, before));
}

TEST(OutputBufferTest, PadsNumbersAndColumns) {
    OutputBuffer output(-1);
    output.AppendPadded(-7, 4, ' ');
    output.AppendPadded(12345, 4, '0');
    output.AppendPadded(5, 1, '0');
    output.PadTo(12);
    output.PadTo(3);
    output.AppendNumber(std::uint64_t{18446744073709551615U});
    EXPECT_EQ(output.Pending(), "  -7123455  18446744073709551615");
    output.Discard();
    EXPECT_EQ(output.Pending(), "");
}

}  // namespace
}  // namespace vexposix
