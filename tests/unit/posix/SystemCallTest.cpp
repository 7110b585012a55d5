// What the file functions do when a system call is interrupted, falls short or fails.
#include "SystemCalls.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "Row.h"
#include "TempDirectory.h"
#include "posix/Directories.h"
#include "posix/FileIo.h"
#include "posix/LockFile.h"
#include "posix/OpenFile.h"
#include "posix/OutputBuffer.h"
#include "posix/ReplacementFile.h"

namespace vexposix {
namespace {

// The outcomes of one system call and the errno that the function reports.
struct Outcomes : Row {
    std::string strCall;
    std::vector<Outcome> outcomes;
    bool bRepeat;
    int nErrno;
};

class WithOutcomes : public testing::TestWithParam<Outcomes> {
protected:
    WithOutcomes() {
        if (!GetParam().strCall.empty()) {
            m_calls.Script(GetParam().strCall, GetParam().outcomes, GetParam().bRepeat);
        }
    }

    const TempDirectory m_directory;
    const FileDescriptor m_parent{open(m_directory.Path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)};
    const std::string m_strFile = m_directory.Write("file", "0123456789");
    SystemCalls m_calls;
};

class EnterDirectoryWith : public WithOutcomes {};

TEST_P(EnterDirectoryWith, MakesItOrReportsWhy) {
    const EnteredDirectory entered = EnterDirectory(m_parent.Get(), "new");
    EXPECT_EQ(entered.nErrno, GetParam().nErrno);
    EXPECT_EQ(entered.descriptor.IsOpen(), GetParam().nErrno == 0);
}

INSTANTIATE_TEST_SUITE_P(, EnterDirectoryWith,
                         testing::Values(Outcomes{"ASignal", "open", {Fail(EINTR)}, false, 0},
                                         Outcomes{"NoRight", "open", {Fail(EACCES)}, false, EACCES},
                                         Outcomes{"RemovedAgainAndAgain", "open", {Fail(ENOENT)}, true, EBUSY},
                                         Outcomes{"MadeBySomebodyElse", "mkdirat", {Fail(EEXIST)}, false, 0},
                                         Outcomes{"NotMade", "mkdirat", {Fail(ENOSPC)}, true, ENOSPC},
                                         Outcomes{"ASignalWhileMaking", "mkdirat", {Fail(EINTR)}, false, 0},
                                         Outcomes{"Unknown", "fstat", {Fail(EIO)}, false, EIO}),
                         RowName);

class OpenFileWith : public WithOutcomes {};

TEST_P(OpenFileWith, OpensItOrReportsWhy) {
    ASSERT_EQ(chmod(m_strFile.c_str(), 0644), 0);
    const OpenedFile file = OpenFile(AT_FDCWD, m_strFile.c_str(), kPrivateInput);
    EXPECT_EQ(file.nErrno, GetParam().nErrno);
    EXPECT_EQ(file.descriptor.IsOpen(), GetParam().nErrno == 0);
}

INSTANTIATE_TEST_SUITE_P(, OpenFileWith,
                         testing::Values(Outcomes{"ASignal", "open", {Fail(EINTR)}, false, 0},
                                         Outcomes{"SignalsAgainAndAgain", "open", {Fail(EINTR)}, true, EBUSY},
                                         Outcomes{"Unknown", "fstat", {Fail(EIO)}, false, EIO},
                                         Outcomes{"StaysOpenToOthers", "fchmod", {Fail(EROFS)}, false, EROFS}),
                         RowName);

class OpenOrCreateFileWith : public WithOutcomes {};

TEST_P(OpenOrCreateFileWith, OpensItOrReportsWhy) {
    const OpenedFile file = OpenOrCreateFile(AT_FDCWD, m_strFile.c_str(), kConfined);
    EXPECT_EQ(file.nErrno, GetParam().nErrno);
    EXPECT_EQ(file.descriptor.IsOpen(), GetParam().nErrno == 0);
    EXPECT_FALSE(file.bCreated);
}

INSTANTIATE_TEST_SUITE_P(, OpenOrCreateFileWith,
                         testing::Values(Outcomes{"ASignal", "open", {Fail(EINTR)}, false, 0},
                                         Outcomes{"SignalsAgainAndAgain", "open", {Fail(EINTR)}, true, EBUSY},
                                         Outcomes{"MadeBySomebodyElse", "open", {Fail(ENOENT)}, false, 0},
                                         Outcomes{"RemovedAgainAndAgain", "open", {Fail(ENOENT)}, true, EBUSY}),
                         RowName);

class ReadSomeWith : public WithOutcomes {};

TEST_P(ReadSomeWith, ReadsOrReportsWhy) {
    const FileDescriptor file(open(m_strFile.c_str(), O_RDONLY | O_CLOEXEC));
    std::array<char, 4> bytes{};
    const ssize_t cb = ReadSome(file.Get(), bytes.data(), bytes.size());
    EXPECT_EQ(cb < 0 ? errno : 0, GetParam().nErrno);
    EXPECT_EQ(cb, GetParam().nErrno == 0 ? 4 : -1);
}

INSTANTIATE_TEST_SUITE_P(, ReadSomeWith,
                         testing::Values(Outcomes{"ASignal", "read", {Fail(EINTR), Fail(EINTR)}, false, 0},
                                         Outcomes{"NotReadyYet", "read", {Fail(EAGAIN)}, false, 0},
                                         Outcomes{"AnError", "read", {Fail(EIO)}, false, EIO}),
                         RowName);

class WriteAllWith : public WithOutcomes {};

TEST_P(WriteAllWith, WritesOrReportsWhy) {
    const FileDescriptor file(open(m_strFile.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC));
    EXPECT_EQ(WriteAll(file.Get(), "abcdef"), GetParam().nErrno);
    if (GetParam().nErrno == 0) {
        EXPECT_EQ(ReadWholeFile(m_strFile), "abcdef");
    }
}

INSTANTIATE_TEST_SUITE_P(, WriteAllWith,
                         testing::Values(Outcomes{"InPieces", "write", {Short(1), Short(2), Fail(EINTR)}, false, 0},
                                         Outcomes{"NotReadyYet", "write", {Fail(EAGAIN), Fail(EAGAIN)}, false, 0},
                                         Outcomes{
                                             "NotReadyAndThenAnError", "write", {Fail(EAGAIN), Fail(EIO)}, false, EIO},
                                         Outcomes{"Nothing", "write", {Short(2), kZero}, false, EIO},
                                         Outcomes{"NoRoom", "write", {Short(2), Fail(ENOSPC)}, false, ENOSPC}),
                         RowName);

class FinishWith : public WithOutcomes {};

TEST_P(FinishWith, ReportsAWriteThatFailsAtTheEnd) {
    const FileDescriptor file(open(m_strFile.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC));
    OutputBuffer output(file.Get(), "the output");
    output.Append("abc");
    int nErrno = 0;
    try {
        output.Finish();
    } catch (const std::system_error& error) {
        nErrno = error.code().value();
        EXPECT_EQ(std::string(error.what()).find("the output: "), 0U) << error.what();
    }
    EXPECT_EQ(nErrno, GetParam().nErrno);
    EXPECT_EQ(ReadWholeFile(m_strFile), "abc");
    // The caller goes on writing to its descriptor.
    EXPECT_EQ(WriteAll(file.Get(), "def"), 0);
}

INSTANTIATE_TEST_SUITE_P(, FinishWith,
                         testing::Values(Outcomes{"NothingFails", "", {}, false, 0},
                                         Outcomes{"NoMoreDescriptors", "fcntl", {Fail(EMFILE)}, false, 0},
                                         Outcomes{"NoRoom", "close", {Fail(EDQUOT)}, false, EDQUOT}),
                         RowName);

class LockFileWith : public WithOutcomes {};

TEST_P(LockFileWith, TakesTheLockOrReportsWhy) {
    const FileDescriptor file(open(m_strFile.c_str(), O_RDWR | O_CLOEXEC));
    EXPECT_EQ(LockFile(file.Get(), LOCK_EX, std::chrono::milliseconds(5)), GetParam().nErrno);
}

INSTANTIATE_TEST_SUITE_P(, LockFileWith,
                         testing::Values(Outcomes{"ASignal", "flock", {Fail(EINTR)}, false, 0},
                                         Outcomes{"SignalsAllTheTime", "flock", {Fail(EINTR)}, true, EWOULDBLOCK},
                                         Outcomes{"NoLocks", "flock", {Fail(ENOLCK)}, false, ENOLCK}),
                         RowName);

class ReplacementWith : public WithOutcomes {};

TEST_P(ReplacementWith, MovesOrKeepsTheOldFile) {
    {
        ReplacementFile file(m_parent.Get(), "new", 0600);
        ASSERT_EQ(WriteAll(file.Descriptor(), "newer"), 0);
        EXPECT_EQ(file.MoveTo("file"), GetParam().nErrno);
        EXPECT_EQ(file.HasMoved(), GetParam().nErrno == 0);
    }
    EXPECT_EQ(ReadWholeFile(m_strFile), GetParam().nErrno == 0 ? "newer" : "0123456789");
    EXPECT_FALSE(std::filesystem::exists(m_directory.Path("new")));
}

INSTANTIATE_TEST_SUITE_P(, ReplacementWith,
                         testing::Values(Outcomes{"NothingFails", "", {}, false, 0},
                                         Outcomes{"NoFsync", "fsync", {Fail(EINVAL)}, false, 0},
                                         Outcomes{"AWriteThatFailsLater", "fsync", {Fail(EIO)}, false, EIO},
                                         Outcomes{"AWriteThatFailsAtTheEnd", "close", {Fail(EDQUOT)}, false, EDQUOT},
                                         Outcomes{"NotRenamed", "renameat", {Fail(EACCES)}, false, EACCES}),
                         RowName);

}  // namespace
}  // namespace vexposix
