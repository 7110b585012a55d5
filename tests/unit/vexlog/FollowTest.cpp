// Follows a log while its file is appended to, cut, emptied, replaced and locked.
#include "Follow.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <filesystem>
#include <numeric>

#include "Collected.h"
#include "Input.h"
#include "TempDirectory.h"
#include "posix/FileDescriptor.h"

namespace {

class FollowTest : public testing::Test {
protected:
    // Adds records. Their messages are the next numbers.
    void Append(int nRecords) {
        std::ofstream file(m_strPath, std::ios::binary | std::ios::app);
        if (file.tellp() == 0) {
            file << kHead;
        }
        for (int i = 0; i < nRecords; ++i) {
            file << Numbered(m_nNext++) << kEnd;
        }
    }

    // Each record has its own time.
    static std::string Numbered(int n) {
        return Entry(std::to_string(n), "Function", 7, "2024-03-05 09:07:02:" + std::to_string(100'000 + n));
    }

    // Cuts like the log: removes the oldest part and the last line end.
    void Cut(double dShare) const {
        const std::string strOld = ReadWholeFile(m_strPath);
        const auto cbText = strOld.size() - kHead.size();
        const auto cbKept = static_cast<std::size_t>(static_cast<double>(cbText) * (1 - dShare)) / 2 * 2;
        const int nFile = open(m_strPath.c_str(), O_WRONLY | O_CLOEXEC);
        const vexposix::FileDescriptor file(nFile);
        const std::string strNew = std::string(kHead) + strOld.substr(cbText - cbKept, cbKept);
        ASSERT_EQ(write(nFile, strNew.data(), strNew.size()), static_cast<ssize_t>(strNew.size()));
        ASSERT_EQ(ftruncate(nFile, static_cast<off_t>(strNew.size())), 0);
    }

    // Polls until two polls in a row find nothing new. Returns the numbers of the new records.
    std::vector<int> Poll() {
        while (m_follower.Poll() || m_follower.Poll()) {
        }
        return Numbers();
    }

    std::vector<int> Numbers() {
        std::vector<int> numbers;
        for (const std::string& strLine : m_collector.lines) {
            if (strLine.starts_with("record")) {
                numbers.push_back(std::stoi(strLine.substr(strLine.rfind(' '))));
            } else {
                m_others.push_back(strLine);
            }
        }
        m_collector.lines.clear();
        return numbers;
    }

    // Why the file cannot be followed.
    std::string Refusal() {
        try {
            m_follower.Poll();
        } catch (const vexlog::ReadError& error) {
            return error.what();
        }
        return "";
    }

    static std::vector<int> Range(int nFrom, int nTo) {
        std::vector<int> numbers(static_cast<std::size_t>(nTo - nFrom));
        std::iota(numbers.begin(), numbers.end(), nFrom);
        return numbers;
    }

    const TempDirectory m_directory;
    const std::string m_strPath = m_directory.Path("log");
    Collector m_collector;
    vexlog::Follower m_follower{m_strPath, m_collector};
    std::vector<std::string> m_others;
    int m_nNext = 0;
};

TEST_F(FollowTest, FindsAddedRecords) {
    Append(3);
    EXPECT_EQ(Poll(), Range(0, 3));
    EXPECT_EQ(Poll(), Range(0, 0));
    Append(2);
    EXPECT_EQ(Poll(), Range(3, 5));
}

TEST_F(FollowTest, WaitsForAFileThatIsCreatedLater) {
    EXPECT_EQ(Poll(), Range(0, 0));
    EXPECT_FALSE(m_follower.HasFile());
    Append(3);
    EXPECT_EQ(Poll(), Range(0, 3));
    EXPECT_TRUE(m_follower.HasFile());
}

TEST_F(FollowTest, WaitsForTheRestOfARecord) {
    Append(1);
    const std::string strRecord = Numbered(1) + std::string(kEnd);
    for (const char ch : strRecord) {
        std::ofstream(m_strPath, std::ios::binary | std::ios::app) << ch;
        m_follower.Poll();
    }
    EXPECT_EQ(Poll(), Range(0, 2));
    EXPECT_THAT(m_others, testing::IsEmpty());
}

// The record ends with its line, but the next write may continue it. So it comes with the second poll that finds
// nothing new.
TEST_F(FollowTest, FindsALastRecordWithoutAnEmptyLine) {
    std::ofstream(m_strPath) << "[05/Mar/2024:09:07:02 CET] [4711 12d][INFO]text\n";
    EXPECT_TRUE(m_follower.Poll());
    EXPECT_FALSE(m_follower.Poll());
    EXPECT_THAT(m_collector.lines, testing::IsEmpty());
    EXPECT_FALSE(m_follower.Poll());
    EXPECT_THAT(m_collector.lines, testing::ElementsAre(testing::StartsWith("minimal INFO P4711 T12 ")));
}

// The share that is cut decides whether the records read last are still in the file, in part or not at all.
TEST_F(FollowTest, GoesOnThroughCutsOfAnyShare) {
    Append(20);
    EXPECT_EQ(Poll(), Range(0, 20));
    for (int nPercent = 1; nPercent < 97; ++nPercent) {
        const int nFrom = m_nNext;
        Append(20);
        EXPECT_EQ(Poll(), Range(nFrom, nFrom + 20));
        Cut(nPercent / 100.0);
        EXPECT_EQ(Poll(), Range(0, 0)) << nPercent;
        Append(1);
        EXPECT_EQ(Poll(), Range(nFrom + 20, nFrom + 21)) << nPercent;
        ASSERT_FALSE(m_follower.TakeLost()) << nPercent;
    }
    EXPECT_THAT(m_others, testing::IsEmpty());
}

TEST_F(FollowTest, NoticesACutAfterWhichTheFileGrew) {
    Append(50);
    EXPECT_EQ(Poll(), Range(0, 50));
    Cut(0.2);
    Append(100);
    EXPECT_EQ(Poll(), Range(50, 150));
    EXPECT_FALSE(m_follower.TakeLost());
    EXPECT_THAT(m_others, testing::IsEmpty());
}

// The process that created the file ended before it wrote the mark. A cut left the end of the record read last.
TEST_F(FollowTest, NoticesACutOfAFileWithoutItsMark) {
    const std::string strText = Numbered(0);
    std::ofstream(m_strPath, std::ios::binary) << strText << kEnd;
    EXPECT_EQ(Poll(), Range(0, 1));
    std::ofstream(m_strPath, std::ios::binary) << strText.substr(strText.size() - 40);
    EXPECT_EQ(Poll(), Range(0, 0));
    EXPECT_FALSE(m_follower.TakeLost());
    std::ofstream(m_strPath, std::ios::binary | std::ios::app) << Numbered(1) << kEnd;
    EXPECT_EQ(Poll(), Range(1, 2));
    EXPECT_THAT(m_others, testing::IsEmpty());
}

TEST_F(FollowTest, ReportsThatACutRemovedUnreadRecords) {
    Append(10);
    EXPECT_EQ(Poll(), Range(0, 10));
    Append(90);
    Cut(0.5);
    const std::vector<int> numbers = Poll();
    ASSERT_FALSE(numbers.empty());
    EXPECT_EQ(numbers, Range(numbers.front(), 100));
    EXPECT_GE(numbers.front(), 49);
    EXPECT_TRUE(m_follower.TakeLost());
    EXPECT_FALSE(m_follower.TakeLost());
}

TEST_F(FollowTest, NoticesAnEmptiedFile) {
    Append(10);
    EXPECT_EQ(Poll(), Range(0, 10));
    std::filesystem::resize_file(m_strPath, 0);
    EXPECT_EQ(Poll(), Range(0, 0));
    Append(3);
    EXPECT_EQ(Poll(), Range(10, 13));
}

TEST_F(FollowTest, NoticesAnotherFileOfTheSameName) {
    Append(10);
    EXPECT_EQ(Poll(), Range(0, 10));
    Append(2);
    std::filesystem::rename(m_strPath, m_directory.Path("old"));
    EXPECT_EQ(Poll(), Range(10, 12));
    Append(3);
    EXPECT_EQ(Poll(), Range(12, 15));
    std::filesystem::remove(m_strPath);
    EXPECT_EQ(Poll(), Range(0, 0));
    Append(3);
    EXPECT_EQ(Poll(), Range(15, 18));
}

// Half of a cut: the new text is at the beginning, and the old end still follows. The writer holds the lock.
TEST_F(FollowTest, WaitsForACutInProgress) {
    Append(50);
    EXPECT_EQ(Poll(), Range(0, 50));
    const std::string strOld = ReadWholeFile(m_strPath);
    Append(50);
    const std::string strMore = ReadWholeFile(m_strPath);
    Cut(0.6);
    const std::string strCut = ReadWholeFile(m_strPath);
    {
        const vexposix::FileDescriptor writer(open(m_strPath.c_str(), O_RDWR | O_CLOEXEC));
        ASSERT_EQ(flock(writer.Get(), LOCK_EX), 0);
        const std::string strHalf = strCut + strMore.substr(strCut.size());
        ASSERT_EQ(pwrite(writer.Get(), strHalf.data(), strHalf.size(), 0), static_cast<ssize_t>(strHalf.size()));
        m_follower.Poll();
        EXPECT_EQ(Numbers(), Range(0, 0));
        ASSERT_EQ(ftruncate(writer.Get(), static_cast<off_t>(strCut.size())), 0);
    }
    const std::vector<int> numbers = Poll();
    ASSERT_FALSE(numbers.empty());
    EXPECT_EQ(numbers, Range(numbers.front(), 100));
    EXPECT_TRUE(m_follower.TakeLost());
}

// A writer may keep its lock as long as it lives.
TEST_F(FollowTest, DoesNotWaitForEverForALock) {
    Append(50);
    EXPECT_EQ(Poll(), Range(0, 50));
    Cut(0.2);
    Append(10);
    const vexposix::FileDescriptor writer(open(m_strPath.c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_EQ(flock(writer.Get(), LOCK_EX), 0);
    for (int nLook = 0; nLook < 10; ++nLook) {
        m_follower.Poll();
    }
    EXPECT_EQ(Numbers(), Range(50, 60));
}

TEST_F(FollowTest, RefusesACompressedLog) {
    std::ofstream(m_strPath, std::ios::binary) << "\x1F\x8B\x08 and more";
    EXPECT_THAT(Refusal(), testing::EndsWith(": a compressed log does not grow; read it without --follow"));
}

TEST_F(FollowTest, RefusesFilesThatCannotBeFollowed) {
    const auto saysWhy = testing::EndsWith(": only a regular file can be followed; read it without --follow");
    std::filesystem::create_directory(m_strPath);
    EXPECT_THAT(Refusal(), saysWhy);
    std::filesystem::remove(m_strPath);
    ASSERT_EQ(mkfifo(m_strPath.c_str(), 0600), 0);
    EXPECT_THAT(Refusal(), saysWhy);
}

}  // namespace
