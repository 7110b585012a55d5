// Which file an output's name has before, during and after writing, and when writing fails.
#include "common/OutputFile.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <system_error>

#include "Row.h"
#include "TempDirectory.h"

namespace {

using tools::OutputFile;

mode_t RightsOf(const std::string& strPath) {
    struct stat status = {};
    EXPECT_EQ(stat(strPath.c_str(), &status), 0);
    return status.st_mode & 0777;
}

void Write(const OutputFile& file, std::string_view text) {
    EXPECT_EQ(write(file.Descriptor(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
}

class OutputFileTest : public testing::Test {
protected:
    OutputFileTest() : m_nMask(umask(027)) {}
    ~OutputFileTest() override { umask(m_nMask); }

    std::size_t CountOfFiles() const {
        const std::filesystem::directory_iterator files(m_directory.Path());
        return static_cast<std::size_t>(std::distance(begin(files), end(files)));
    }

    const mode_t m_nMask;
    const TempDirectory m_directory;
    const std::string m_strPath = m_directory.Path("out");
};

TEST_F(OutputFileTest, ANewFileAppearsWhenItIsWhole) {
    OutputFile file(m_strPath);
    Write(file, "new");
    EXPECT_FALSE(std::filesystem::exists(m_strPath));
    file.Commit();
    EXPECT_EQ(ReadWholeFile(m_strPath), "new");
    EXPECT_EQ(RightsOf(m_strPath), 0640U);
    EXPECT_EQ(CountOfFiles(), 1U);
}

TEST_F(OutputFileTest, AnOldFileStaysUntilTheNewOneIsWhole) {
    m_directory.Write("out", "old");
    ASSERT_EQ(chmod(m_strPath.c_str(), 0604), 0);
    OutputFile file(m_strPath);
    Write(file, "new");
    EXPECT_EQ(ReadWholeFile(m_strPath), "old");
    file.Commit();
    EXPECT_EQ(ReadWholeFile(m_strPath), "new");
    EXPECT_EQ(RightsOf(m_strPath), 0604U);
}

TEST_F(OutputFileTest, WithoutCommitNothingChanges) {
    m_directory.Write("out", "old");
    { Write(OutputFile(m_strPath), "new"); }
    { Write(OutputFile(m_directory.Path("new")), "new"); }
    EXPECT_EQ(ReadWholeFile(m_strPath), "old");
    EXPECT_EQ(CountOfFiles(), 1U);
}

TEST_F(OutputFileTest, SymbolicLinksStayAndHardLinksKeepTheOldContent) {
    m_directory.Write("out", "old");
    ASSERT_EQ(mkdir(m_directory.Path("folder").c_str(), 0700), 0);
    ASSERT_EQ(symlink("../out", m_directory.Path("folder/soft").c_str()), 0);
    ASSERT_EQ(link(m_strPath.c_str(), m_directory.Path("hard").c_str()), 0);
    OutputFile file(m_directory.Path("folder/soft"));
    Write(file, "new");
    file.Commit();
    EXPECT_TRUE(std::filesystem::is_symlink(m_directory.Path("folder/soft")));
    EXPECT_EQ(ReadWholeFile(m_strPath), "new");
    EXPECT_EQ(ReadWholeFile(m_directory.Path("hard")), "old");
}

TEST_F(OutputFileTest, CreatesTheTargetOfADanglingLink) {
    ASSERT_EQ(symlink("new", m_strPath.c_str()), 0);
    OutputFile file(m_strPath);
    Write(file, "new");
    file.Commit();
    EXPECT_TRUE(std::filesystem::is_symlink(m_strPath));
    EXPECT_EQ(ReadWholeFile(m_directory.Path("new")), "new");
}

TEST_F(OutputFileTest, ADeviceIsWrittenTo) {
    OutputFile file("/dev/full");
    EXPECT_EQ(write(file.Descriptor(), "x", 1), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_TRUE(std::filesystem::is_character_file("/dev/full"));
}

// Like a shell's redirection that appends.
TEST_F(OutputFileTest, WritesToAnOwnDescriptorAtItsPosition) {
    m_directory.Write("out", "old ");
    const vexposix::FileDescriptor append(open(m_strPath.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
    OutputFile file("/dev/fd/" + std::to_string(append.Get()));
    Write(file, "new");
    file.Commit();
    EXPECT_EQ(ReadWholeFile(m_strPath), "old new");
    EXPECT_EQ(fcntl(append.Get(), F_GETFD), FD_CLOEXEC);
}

struct BadRow : Row {
    std::string strOutput;
    int nError;
};

class BadOutputTest : public OutputFileTest, public testing::WithParamInterface<BadRow> {};

TEST_P(BadOutputTest, IsRefusedWithItsName) {
    ASSERT_EQ(mkdir(m_directory.Path("folder").c_str(), 0700), 0);
    m_directory.Write("file", "old");
    const std::string strName =
        GetParam().strOutput.starts_with('/') ? GetParam().strOutput : m_directory.Path() + "/" + GetParam().strOutput;
    try {
        const OutputFile file(strName);
        FAIL() << "the output was accepted";
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code().value(), GetParam().nError);
        EXPECT_NE(std::string(error.what()).find(strName), std::string::npos) << error.what();
    }
    EXPECT_EQ(CountOfFiles(), 2U);
}

INSTANTIATE_TEST_SUITE_P(
    Names, BadOutputTest,
    testing::Values(BadRow{{"Folder"}, "folder", EISDIR}, BadRow{{"FolderSlash"}, "folder/", EISDIR},
                    BadRow{{"NewNameSlash"}, "new/", EISDIR}, BadRow{{"InNoFolder"}, "no/new", ENOENT},
                    BadRow{{"BelowAFile"}, "file/new", ENOTDIR}, BadRow{{"ClosedDescriptor"}, "/dev/fd/987", EBADF}),
    RowName);

// In a child process: the file's owner may write to the folder, but the file is read-only.
TEST_F(OutputFileTest, AFileThatMustNotBeWrittenIsNotReplaced) {
    constexpr uid_t kNobody = 65534;
    m_directory.Write("out", "old");
    ASSERT_EQ(chmod(m_strPath.c_str(), 0444), 0);
    if (geteuid() == 0) {
        ASSERT_EQ(chown(m_strPath.c_str(), kNobody, kNobody), 0);
        ASSERT_EQ(chown(m_directory.Path().c_str(), kNobody, kNobody), 0);
    }
    const pid_t nChild = fork();
    if (nChild == 0) {
        int nResult = 1;
        try {
            if (geteuid() == 0 && setresuid(kNobody, kNobody, kNobody) != 0) {
                _exit(2);
            }
            const OutputFile file(m_strPath);
        } catch (const std::system_error& error) {
            nResult = error.code().value() == EACCES ? 0 : 3;
        }
        _exit(nResult);
    }
    int nStatus = -1;
    ASSERT_EQ(waitpid(nChild, &nStatus, 0), nChild);
    EXPECT_TRUE(WIFEXITED(nStatus) && WEXITSTATUS(nStatus) == 0) << nStatus;
    EXPECT_EQ(ReadWholeFile(m_strPath), "old");
}

class SignalTest : public OutputFileTest, public testing::WithParamInterface<int> {};

TEST_P(SignalTest, LeavesTheOldFilesAndNoTemporaryFile) {
    m_directory.Write("out", "old");
    const pid_t nChild = fork();
    if (nChild == 0) {
        const OutputFile first(m_strPath);
        const OutputFile second(m_directory.Path("new"));
        Write(first, "new");
        raise(GetParam());
        _exit(0);
    }
    int nStatus = -1;
    ASSERT_EQ(waitpid(nChild, &nStatus, 0), nChild);
    EXPECT_TRUE(WIFSIGNALED(nStatus) && WTERMSIG(nStatus) == GetParam()) << nStatus;
    EXPECT_EQ(ReadWholeFile(m_strPath), "old");
    EXPECT_EQ(CountOfFiles(), 1U);
}

INSTANTIATE_TEST_SUITE_P(Ends, SignalTest, testing::Values(SIGHUP, SIGINT, SIGQUIT, SIGTERM));

TEST_F(OutputFileTest, AnIgnoredSignalStaysIgnored) {
    const pid_t nChild = fork();
    if (nChild == 0) {
        signal(SIGHUP, SIG_IGN);
        OutputFile file(m_strPath);
        Write(file, "new");
        raise(SIGHUP);
        file.Commit();
        _exit(0);
    }
    int nStatus = -1;
    ASSERT_EQ(waitpid(nChild, &nStatus, 0), nChild);
    EXPECT_TRUE(WIFEXITED(nStatus)) << nStatus;
    EXPECT_EQ(ReadWholeFile(m_strPath), "new");
}

TEST_F(OutputFileTest, AFailureNamesStandardOutput) {
    rlimit before = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit few = {STDERR_FILENO + 1, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
    try {
        const OutputFile file("-");
        ADD_FAILURE() << "a descriptor beyond the limit";
    } catch (const std::system_error& error) {
        EXPECT_STREQ(error.what(), "standard output: Too many open files");
    }
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
}

}  // namespace
