#include "posix/OpenFile.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>

#include "ChildProcess.h"
#include "Row.h"
#include "TempDirectory.h"
#include "Users.h"

namespace vexposix {
namespace {

struct Rules : Row {
    FileRules rules;
    int nErrnoOfLink;      // 0: opened
    int nErrnoOfHardLink;  // 0: opened
};

class OpenFileByRules : public testing::TestWithParam<Rules> {
protected:
    int Open(const std::string& strName) const {
        const OpenedFile file = OpenFile(AT_FDCWD, m_directory.Path(strName).c_str(), GetParam().rules);
        EXPECT_EQ(file.descriptor.IsOpen(), file.nErrno == 0) << strName;
        EXPECT_FALSE(file.bCreated);
        return file.nErrno;
    }

    const TempDirectory m_directory;
};

TEST_P(OpenFileByRules, OpensARegularFile) {
    const std::string strPath = m_directory.Write("file", "bytes");
    const OpenedFile file = OpenFile(AT_FDCWD, strPath.c_str(), GetParam().rules);
    ASSERT_TRUE(file.descriptor.IsOpen());
    EXPECT_EQ(file.cbSize, 5U);
    EXPECT_EQ(fcntl(file.descriptor.Get(), F_GETFL) & O_ACCMODE, GetParam().rules.nAccess);
    EXPECT_EQ(fcntl(file.descriptor.Get(), F_GETFD), FD_CLOEXEC);
    struct stat status {};
    ASSERT_EQ(stat(strPath.c_str(), &status), 0);
    EXPECT_EQ((status.st_mode & 0777) == 0600, GetParam().rules.bMadePrivate);
}

TEST_P(OpenFileByRules, DecidesAboutLinks) {
    m_directory.Write("file", "bytes");
    ASSERT_EQ(symlink("file", m_directory.Path("link").c_str()), 0);
    EXPECT_EQ(Open("link"), GetParam().nErrnoOfLink);
    ASSERT_EQ(link(m_directory.Path("file").c_str(), m_directory.Path("second").c_str()), 0);
    EXPECT_EQ(Open("file"), GetParam().nErrnoOfHardLink);
    EXPECT_EQ(Open("second"), GetParam().nErrnoOfHardLink);
}

TEST_P(OpenFileByRules, RefusesWhatIsNoRegularFile) {
    ASSERT_EQ(mkfifo(m_directory.Path("pipe").c_str(), 0600), 0);
    EXPECT_EQ(Open("pipe"), EINVAL);
    ASSERT_EQ(mkdir(m_directory.Path("directory").c_str(), 0700), 0);
    EXPECT_EQ(Open("directory"), EISDIR);
    EXPECT_EQ(Open("missing"), ENOENT);
    EXPECT_EQ(Open("missing/file"), ENOENT);
}

// Only root can make a file that belongs to somebody else.
TEST_P(OpenFileByRules, DecidesAboutOwners) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "skipped: only root can give a file to another user";
    }
    const std::string strPath = m_directory.Write("file", "bytes");
    ASSERT_EQ(chmod(m_directory.Path().c_str(), 0755), 0);
    const Owner owner = GetParam().rules.owner;
    for (const uid_t user : {uid_t{0}, kSomebody, kSomebodyElse}) {
        ASSERT_EQ(chown(strPath.c_str(), user, 0), 0);
        ASSERT_EQ(chmod(strPath.c_str(), 0666), 0);
        ExpectChildPasses([&] {
            ASSERT_TRUE(BecomeUser(kSomebody));
            const bool bAllowed =
                owner == Owner::kAnybody || user == kSomebody || (owner == Owner::kUserOrRoot && user == 0);
            EXPECT_EQ(Open("file"), bAllowed ? 0 : EPERM) << user;
        });
    }
}

INSTANTIATE_TEST_SUITE_P(, OpenFileByRules,
                         testing::Values(Rules{"Input", kInput, 0, 0}, Rules{"PrivateInput", kPrivateInput, ELOOP, 0},
                                         Rules{"Private", kPrivate, ELOOP, 0},
                                         Rules{"KnownName", kKnownName, ELOOP, EMLINK},
                                         Rules{"Confined", kConfined, ELOOP, EMLINK}),
                         RowName);

class OpenOrCreate : public testing::Test {
protected:
    const TempDirectory m_directory;
    const FileDescriptor m_parent{open(m_directory.Path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)};
};

TEST_F(OpenOrCreate, CreatesAMissingFileForItsOwnerOnly) {
    umask(0);
    const OpenedFile created = OpenOrCreateFile(m_parent.Get(), "file", kConfined);
    ASSERT_TRUE(created.descriptor.IsOpen());
    EXPECT_TRUE(created.bCreated);
    struct stat status {};
    ASSERT_EQ(stat(m_directory.Path("file").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
    const OpenedFile opened = OpenOrCreateFile(m_parent.Get(), "file", kConfined);
    EXPECT_TRUE(opened.descriptor.IsOpen());
    EXPECT_FALSE(opened.bCreated);
}

TEST_F(OpenOrCreate, ReportsAMissingDirectory) {
    EXPECT_EQ(OpenOrCreateFile(m_parent.Get(), "missing/file", kConfined).nErrno, ENOENT);
}

TEST_F(OpenOrCreate, ReportsALinkThatLeadsNowhere) {
    ASSERT_EQ(symlink("nowhere", m_directory.Path("link").c_str()), 0);
    EXPECT_EQ(OpenOrCreateFile(m_parent.Get(), "link", kConfined).nErrno, ELOOP);
    EXPECT_FALSE(std::filesystem::exists(m_directory.Path("nowhere")));
}

TEST_F(OpenOrCreate, ShowsANewFileBeforeItHasItsName) {
    int nCalls = 0;
    const auto look = [&](int nDescriptor) {
        ++nCalls;
        EXPECT_EQ(write(nDescriptor, "first", 5), 5);
        EXPECT_FALSE(std::filesystem::exists(m_directory.Path("file")));
    };
    EXPECT_TRUE(OpenOrCreateFile(m_parent.Get(), "file", kConfined, look).bCreated);
    EXPECT_EQ(nCalls, 1);
    EXPECT_EQ(ReadWholeFile(m_directory.Path("file")), "first");
    EXPECT_FALSE(OpenOrCreateFile(m_parent.Get(), "file", kConfined, look).bCreated);
    EXPECT_EQ(nCalls, 1);
}

TEST_F(OpenOrCreate, OpensAFileThatAnotherProcessMakesMeanwhile) {
    const auto make = [&](int) { m_directory.Write("file", "theirs"); };
    const OpenedFile opened = OpenOrCreateFile(m_parent.Get(), "file", kConfined, make);
    EXPECT_TRUE(opened.descriptor.IsOpen());
    EXPECT_FALSE(opened.bCreated);
    EXPECT_EQ(ReadWholeFile(m_directory.Path("file")), "theirs");
}

class ReadWholeTest : public testing::Test {
protected:
    OpenedFile Open(const char* pszName) const { return OpenFile(AT_FDCWD, m_directory.Path(pszName).c_str(), kInput); }
    int Read(const OpenedFile& file, std::size_t cbLimit) {
        const auto room = [this](std::size_t cb) {
            m_strRead.resize(cb);
            return m_strRead.data();
        };
        const Transfer transfer = ReadWhole(file, cbLimit, room);
        m_cbRead = transfer.cb;
        return transfer.nErrno;
    }

    const TempDirectory m_directory;
    std::string m_strRead;
    std::size_t m_cbRead = 99;
};

TEST_F(ReadWholeTest, ReadsUpToTheLimit) {
    m_directory.Write("file", "0123456789");
    EXPECT_EQ(Read(Open("file"), 9), EFBIG);
    EXPECT_EQ(m_cbRead, 0U);
    EXPECT_EQ(m_strRead, "");
    EXPECT_EQ(Read(Open("file"), 10), 0);
    EXPECT_EQ(m_cbRead, 10U);
    EXPECT_EQ(m_strRead, "0123456789");
}

TEST_F(ReadWholeTest, ReadsLessOfAFileThatWasCutMeanwhile) {
    m_directory.Write("file", "0123456789");
    const OpenedFile file = Open("file");
    ASSERT_EQ(truncate(m_directory.Path("file").c_str(), 4), 0);
    EXPECT_EQ(Read(file, 10), 0);
    EXPECT_EQ(m_strRead.substr(0, m_cbRead), "0123");
}

TEST_F(ReadWholeTest, ReportsThatTheFileIsNotOpen) {
    EXPECT_EQ(Read(Open("missing"), 10), ENOENT);
    EXPECT_EQ(m_cbRead, 0U);
}

}  // namespace
}  // namespace vexposix
