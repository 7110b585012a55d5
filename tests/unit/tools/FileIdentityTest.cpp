// Which names denote the same file.
#include "common/FileIdentity.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Row.h"
#include "TempDirectory.h"

namespace {

using tools::FileIdentity;

struct PairRow : Row {
    std::string strFirst;
    std::string strSecond;
    bool bSameFile;
    bool bSameOutput;
};

class FileIdentityTest : public testing::TestWithParam<PairRow> {
protected:
    FileIdentityTest() {
        m_directory.Write("file", "x");
        m_directory.Write("other", "x");
        EXPECT_EQ(mkdir(m_directory.Path("folder").c_str(), 0700), 0);
        EXPECT_EQ(link(m_directory.Path("file").c_str(), m_directory.Path("hard").c_str()), 0);
        EXPECT_EQ(mkfifo(m_directory.Path("fifo").c_str(), 0600), 0);
        for (const auto& [pszTarget, pszLink] :
             {std::pair{"file", "soft"}, {"soft", "softer"}, {"new", "dangling"}, {"../new", "folder/dangling"}}) {
            EXPECT_EQ(symlink(pszTarget, m_directory.Path(pszLink).c_str()), 0);
        }
    }

    std::string Path(const std::string& strName) const {
        return strName.starts_with('/') || strName == "-" ? strName : m_directory.Path(strName);
    }

    const TempDirectory m_directory;
};

TEST_P(FileIdentityTest, IsThatOfTheFileBehindTheName) {
    const FileIdentity first = FileIdentity::OfOutput(Path(GetParam().strFirst));
    const FileIdentity second = FileIdentity::OfOutput(Path(GetParam().strSecond));
    EXPECT_EQ(first.IsSameFile(second), GetParam().bSameFile);
    EXPECT_EQ(second.IsSameFile(first), GetParam().bSameFile);
    EXPECT_EQ(first.IsSameOutput(second), GetParam().bSameOutput);
    EXPECT_EQ(second.IsSameOutput(first), GetParam().bSameOutput);
    if (GetParam().bSameFile || GetParam().bSameOutput) {
        EXPECT_EQ(first.Hash(), second.Hash());
    }
    EXPECT_EQ(first.IsSameFile(FileIdentity::OfInput(Path(GetParam().strSecond))),
              GetParam().bSameFile && GetParam().strSecond != "-");
}

INSTANTIATE_TEST_SUITE_P(Pairs, FileIdentityTest,
                         testing::Values(PairRow{{"Itself"}, "file", "file", true, true},
                                         PairRow{{"OtherSpelling"}, "file", "folder/..//file", true, true},
                                         PairRow{{"HardLink"}, "file", "hard", true, true},
                                         PairRow{{"SymbolicLinks"}, "hard", "softer", true, true},
                                         PairRow{{"OtherFile"}, "file", "other", false, false},
                                         PairRow{{"NewFile"}, "new", "./new", true, true},
                                         PairRow{{"NewFileBehindLinks"}, "dangling", "folder/dangling", true, true},
                                         PairRow{{"OtherNewFile"}, "new", "newer", false, false},
                                         PairRow{{"NewFileElsewhere"}, "new", "folder/new", false, false},
                                         PairRow{{"InANewFolder"}, "no/new", "no//../no/new", true, true},
                                         PairRow{{"InOtherNewFolders"}, "no/new", "none/new", false, false},
                                         PairRow{{"NewAndOld"}, "new", "file", false, false},
                                         PairRow{{"Pipe"}, "fifo", "fifo", false, true},
                                         PairRow{{"Device"}, "/dev/null", "/dev/null", false, false}),
                         RowName);

TEST(FileIdentity, OfADescriptorIsOneOutputAndNoFile) {
    int ends[2] = {};
    ASSERT_EQ(pipe(ends), 0);
    const std::string strDescriptor = std::to_string(ends[1]);
    const FileIdentity first = FileIdentity::OfOutput("/dev/fd/" + strDescriptor);
    const FileIdentity second = FileIdentity::OfOutput("/proc/self/fd/" + strDescriptor);
    EXPECT_TRUE(first.IsSameOutput(second));
    EXPECT_FALSE(first.IsSameFile(second));
    EXPECT_EQ(first.Hash(), second.Hash());
    close(ends[0]);
    close(ends[1]);
}

TEST(ResolveOutputTest, KnowsThisProcessesDescriptors) {
    EXPECT_EQ(tools::ResolveOutput("-").descriptor, 1);
    EXPECT_EQ(tools::ResolveOutput("/dev/stdout").descriptor, 1);
    EXPECT_EQ(tools::ResolveOutput("/proc/self/fd/7").descriptor, 7);
    EXPECT_EQ(tools::ResolveOutput("/proc/" + std::to_string(getpid()) + "/fd/2").descriptor, 2);
    EXPECT_EQ(tools::ResolveOutput("/proc/1/fd/2").descriptor, std::nullopt);
    EXPECT_TRUE(tools::ResolveOutput("/proc/1/fd/2").bInProc);
    EXPECT_EQ(tools::ResolveOutput("1").descriptor, std::nullopt);
}

TEST(ResolveOutputTest, KnowsTheNamesOfStandardInput) {
    const TempDirectory directory;
    ASSERT_EQ(symlink("/dev/stdin", directory.Path("link").c_str()), 0);
    ASSERT_EQ(symlink("endless", directory.Path("endless").c_str()), 0);
    for (const std::string& strName : {std::string("-"), std::string("/dev/stdin"), std::string("/dev/fd/0"),
                                       std::string("/proc/self/fd/0"), directory.Path("link")}) {
        EXPECT_TRUE(tools::IsStandardInput(strName)) << strName;
    }
    for (const std::string& strName : {std::string("./-"), std::string("/dev/stdout"), std::string("/dev/fd/1"),
                                       directory.Path("none"), directory.Path("endless"), std::string("0")}) {
        EXPECT_FALSE(tools::IsStandardInput(strName)) << strName;
    }
}

TEST(ResolveOutputTest, KnowsTheNamesOfStandardStreams) {
    const TempDirectory directory;
    ASSERT_EQ(symlink("/dev/stderr", directory.Path("link").c_str()), 0);
    ASSERT_EQ(symlink("endless", directory.Path("endless").c_str()), 0);
    for (const std::string& strName : {std::string("-"), std::string("/dev/stdin"), std::string("/dev/stdout"),
                                       std::string("/dev/fd/2"), directory.Path("link")}) {
        EXPECT_TRUE(tools::IsStandardStream(strName)) << strName;
    }
    for (const std::string& strName : {std::string(), std::string("./-"), std::string("/dev/fd/3"),
                                       std::string("/dev/null"), directory.Path("none"), directory.Path("endless")}) {
        EXPECT_FALSE(tools::IsStandardStream(strName)) << strName;
    }
}

TEST(ResolveOutputTest, AnEndlessChainOfLinksIsAnError) {
    const TempDirectory directory;
    ASSERT_EQ(symlink("b", directory.Path("a").c_str()), 0);
    ASSERT_EQ(symlink("a", directory.Path("b").c_str()), 0);
    EXPECT_THROW(tools::ResolveOutput(directory.Path("a")), std::system_error);
}

}  // namespace
