// Output files that are put into place together.
#include "common/OutputGroup.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "TempDirectory.h"

namespace {

using tools::OutputFile;
using tools::OutputGroup;

class OutputGroupTest : public testing::Test {
protected:
    std::unique_ptr<OutputFile> Written(const std::string& strName, const std::string& strText) const {
        auto file = std::make_unique<OutputFile>(m_directory.Path(strName));
        EXPECT_EQ(write(file->Descriptor(), strText.data(), strText.size()), static_cast<ssize_t>(strText.size()));
        return file;
    }

    std::size_t CountOfFiles() const {
        const std::filesystem::directory_iterator files(m_directory.Path());
        return static_cast<std::size_t>(std::distance(begin(files), end(files)));
    }

    OutputGroup::Failed Recording() {
        return [this](std::size_t nNumber, const std::exception& reason) {
            m_failed.emplace_back(nNumber, reason.what());
        };
    }

    const TempDirectory m_directory;
    std::vector<std::pair<std::size_t, std::string>> m_failed;
};

TEST_F(OutputGroupTest, FilesAppearWithTheCommit) {
    m_directory.Write("old", "old");
    OutputGroup group(Recording());
    group.Add(Written("new", "1"), 0);
    group.Add(Written("old", "2"), 1);
    EXPECT_FALSE(std::filesystem::exists(m_directory.Path("new")));
    EXPECT_EQ(ReadWholeFile(m_directory.Path("old")), "old");
    group.Commit();
    EXPECT_EQ(ReadWholeFile(m_directory.Path("new")), "1");
    EXPECT_EQ(ReadWholeFile(m_directory.Path("old")), "2");
    EXPECT_EQ(CountOfFiles(), 2U);
    EXPECT_TRUE(m_failed.empty());
}

TEST_F(OutputGroupTest, WithoutCommitNothingChanges) {
    m_directory.Write("old", "old");
    {
        OutputGroup group(Recording());
        group.Add(Written("new", "1"), 0);
        group.Add(Written("old", "2"), 1);
    }
    EXPECT_EQ(ReadWholeFile(m_directory.Path("old")), "old");
    EXPECT_EQ(CountOfFiles(), 1U);
}

TEST_F(OutputGroupTest, AFailureIsToldAndTheOthersAreInPlace) {
    OutputGroup group(Recording());
    group.Add(Written("first", "1"), 7);
    group.Add(Written("second", "2"), 8);
    group.Add(Written("third", "3"), 9);
    // A file cannot replace a directory.
    ASSERT_EQ(mkdir(m_directory.Path("second").c_str(), 0700), 0);
    group.Commit();
    ASSERT_EQ(m_failed.size(), 1U);
    EXPECT_EQ(m_failed[0].first, 8U);
    EXPECT_NE(m_failed[0].second.find(m_directory.Path("second") + ": "), std::string::npos) << m_failed[0].second;
    EXPECT_EQ(ReadWholeFile(m_directory.Path("first")), "1");
    EXPECT_EQ(ReadWholeFile(m_directory.Path("third")), "3");
    EXPECT_EQ(CountOfFiles(), 3U);
}

TEST_F(OutputGroupTest, DevicesAndPipesAreMembersToo) {
    OutputGroup group(Recording());
    group.Add(std::make_unique<OutputFile>("/dev/null"), 0);
    group.Add(Written("new", "1"), 1);
    group.Commit();
    EXPECT_EQ(ReadWholeFile(m_directory.Path("new")), "1");
    EXPECT_TRUE(m_failed.empty());
}

// More files than the process may have descriptors.
TEST_F(OutputGroupTest, AFullGroupIsPutIntoPlace) {
    constexpr std::size_t kFiles = 200;
    constexpr rlim_t kDescriptors = 64;
    rlimit before = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit few = {kDescriptors, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
    OutputGroup group(Recording());
    for (std::size_t i = 0; i < kFiles; ++i) {
        group.Add(Written(std::to_string(i), "text"), i);
    }
    group.Commit();
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_TRUE(m_failed.empty());
    EXPECT_EQ(CountOfFiles(), kFiles);
    for (std::size_t i = 0; i < kFiles; ++i) {
        EXPECT_EQ(ReadWholeFile(m_directory.Path(std::to_string(i))), "text");
    }
}

}  // namespace
