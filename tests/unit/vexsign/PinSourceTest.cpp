// PINs that come through a pipe, and PIN files that everybody may read.
#include "vexsign/PinSource.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <stdexcept>

#include "TempDirectory.h"

namespace vexsign {
namespace {

// The reading end of a pipe that holds a text, as the shell's <(...) gives it.
class Pipe {
public:
    explicit Pipe(const std::string& strText) {
        EXPECT_EQ(pipe(m_ends.data()), 0);
        EXPECT_EQ(write(m_ends[1], strText.data(), strText.size()), static_cast<ssize_t>(strText.size()));
        close(m_ends[1]);
    }
    ~Pipe() { close(m_ends[0]); }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    std::string Path() const { return "/dev/fd/" + std::to_string(m_ends[0]); }

private:
    std::array<int, 2> m_ends{};
};

TEST(PinSource, ReadsAPipeAsTheToolkitReadsAFile) {
    const std::string strLongest(4096, 'x');
    const struct {
        std::string strText;
        std::string strPin;
    } rows[] = {
        {"1234", "1234"},   {"1234\n", "1234"}, {"1234\r\n", "1234"},     {"1234\n\n", "1234\n"},
        {" 1 2 ", " 1 2 "}, {"1\n2\n", "1\n2"}, {strLongest, strLongest},
    };
    for (const auto& row : rows) {
        const Pipe pipe(row.strText);
        Secret pin;
        EXPECT_TRUE(ReadPinFromPipe(pipe.Path(), pin));
        EXPECT_EQ(pin.Text(), row.strPin);
    }
}

// As sshd gives a program without a terminal its standard input. A socket cannot be opened by its name.
TEST(PinSource, ReadsASocketThatTheProcessHas) {
    std::array<int, 2> ends{};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
    ASSERT_EQ(write(ends[1], "1234\n", 5), 5);
    close(ends[1]);
    const std::string strPath = "/dev/fd/" + std::to_string(ends[0]);
    EXPECT_EQ(open(strPath.c_str(), O_RDONLY), -1);
    Secret pin;
    EXPECT_TRUE(ReadPinFromPipe(strPath, pin));
    EXPECT_EQ(pin.Text(), "1234");
    close(ends[0]);
}

// Behind sudo, the other user may not be allowed to open the file that the shell has opened.
TEST(PinSource, ReadsAFileThatTheProcessHas) {
    const TempDirectory directory;
    const int nFile = open(directory.Write("pin", "1234\n").c_str(), O_RDONLY | O_CLOEXEC);
    Secret pin;
    EXPECT_TRUE(ReadPinFromPipe("/dev/fd/" + std::to_string(nFile), pin));
    EXPECT_EQ(pin.Text(), "1234");
    close(nFile);
}

TEST(PinSource, RefusesAPipeWithoutAUsablePin) {
    for (const auto& [strText, pszReason] : {std::pair(std::string(), ": it holds no PIN"),
                                             {"\n", ": it holds no PIN"},
                                             {std::string(4097, 'x'), ": a PIN has at most 4096 bytes"}}) {
        const Pipe pipe(strText);
        Secret pin;
        try {
            ReadPinFromPipe(pipe.Path(), pin);
            ADD_FAILURE() << "accepted, " << strText.size() << " bytes";
        } catch (const std::runtime_error& error) {
            EXPECT_EQ(std::string(error.what()).find(pipe.Path() + pszReason), 0U) << error.what();
        }
    }
}

TEST(PinSource, LeavesFilesToTheToolkit) {
    const TempDirectory directory;
    directory.Write("pin", "1234");
    Secret pin;
    EXPECT_FALSE(ReadPinFromPipe(directory.Path("pin"), pin));
    EXPECT_FALSE(ReadPinFromPipe(directory.Path("none"), pin));
    EXPECT_FALSE(ReadPinFromPipe(directory.Path(), pin));
    EXPECT_EQ(pin.Text(), "");
}

TEST(PinSource, EverybodyReadsAFileWhoseModeAndDirectoriesAllowIt) {
    const TempDirectory directory;
    ASSERT_EQ(mkdir(directory.Path("folder").c_str(), 0700), 0);
    const std::string strPin = directory.Path("folder/pin");
    directory.Write("folder/pin", "1234");
    ASSERT_EQ(symlink("folder/pin", directory.Path("link").c_str()), 0);
    const struct {
        mode_t nTop;
        mode_t nFolder;
        mode_t nFile;
        bool bExpected;
    } rows[] = {
        {0755, 0755, 0644, true},  {0711, 0711, 0604, true},  {0755, 0755, 0640, false}, {0755, 0755, 0600, false},
        {0755, 0700, 0644, false}, {0755, 0754, 0644, false}, {0700, 0755, 0644, false},
    };
    for (const auto& row : rows) {
        ASSERT_EQ(chmod(directory.Path().c_str(), row.nTop), 0);
        ASSERT_EQ(chmod(directory.Path("folder").c_str(), row.nFolder), 0);
        ASSERT_EQ(chmod(strPin.c_str(), row.nFile), 0);
        for (const std::string& strPath : {strPin, directory.Path("link")}) {
            EXPECT_EQ(EverybodyMayRead(strPath), row.bExpected)
                << std::oct << row.nTop << " " << row.nFolder << " " << row.nFile;
        }
    }
    EXPECT_FALSE(EverybodyMayRead(directory.Path("none")));
    EXPECT_FALSE(EverybodyMayRead("/tmp"));
    EXPECT_FALSE(EverybodyMayRead("/dev/null"));
}

}  // namespace
}  // namespace vexsign
