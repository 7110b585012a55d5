// Reads logs that several processes and threads write at once with the log manager.
#include <gmock/gmock.h>
#include <stdlib.h>

#include <atomic>
#include <iterator>
#include <numeric>
#include <set>
#include <sstream>
#include <thread>

#include "Collected.h"
#include "Command.h"
#include "Follow.h"
#include "LogFile.h"
#include "Scale.h"
#include "Stats.h"
#include "TempDirectory.h"

namespace {

class RealLogTest : public testing::Test {
protected:
    // Returns the number of records written.
    int WriteLog(int nProcesses, int nThreads, int nCalls, int nLimit, int nPause) const {
        const CommandResult result =
            RunCommand("LC_ALL=C.UTF-8 VEX_TEST_LOG_DIR=" + m_directory.Path() + " " VEXLOG_SAMPLE_LOG " " +
                       std::to_string(nProcesses) + " " + std::to_string(nThreads) + " " + std::to_string(nCalls) +
                       " " + std::to_string(nLimit) + " " + std::to_string(nPause));
        EXPECT_EQ(result.nStatus, 0) << result.strOutput;
        std::istringstream counts(result.strOutput);
        return std::accumulate(std::istream_iterator<int>(counts), std::istream_iterator<int>(), 0);
    }

    std::string LogPath() const { return m_directory.Path("PILog.txt"); }

    // Describes a record that the tests' own reader found.
    static std::string Described(const LogRecord& record) {
        const std::string strEnd = record.strMessage.substr(record.strMessage.rfind(' '));
        return "record INFO P" + std::to_string(record.nProcess) + " T" + std::to_string(record.nThread) + " " +
               record.strDate + "T" + record.strTime + "." + std::string(6 - record.strMicros.size(), '0') +
               record.strMicros + " " + record.strFile + "-" + record.strFunction.value_or("") + "(" +
               std::to_string(record.nLine) + "): " + record.strFunction.value_or("") + strEnd;
    }

    const TempDirectory m_directory;
};

TEST_F(RealLogTest, EveryRecordOfACutLogIsFound) {
    const int nCalls = Scaled(300);
    WriteLog(4, 4, nCalls, kScaleDivisor == 1 ? 200'000 : 10'000, 0);
    const LogFile file = ReadLogFile(LogPath());
    std::vector<std::string> expected;
    for (const std::string& strEntry : file.entries) {
        if (const std::optional<LogRecord> record = ParseLogRecord(strEntry)) {
            expected.push_back(Described(*record));
        }
    }
    ASSERT_GT(expected.size(), 10U);
    std::vector<std::string> found = Collected(ReadWholeFile(LogPath()), 4096);
    if (!file.strCut.empty()) {
        ASSERT_FALSE(found.empty());
        EXPECT_THAT(found.front(), testing::StartsWith("fragment: "));
    }
    if (!found.empty() && found.front().starts_with("fragment: ")) {
        found.erase(found.begin());
    }
    ASSERT_EQ(found.size(), expected.size());
    // A cut may have removed only the type of the first record.
    found.front().replace(0, found.front().find(" P"), "record INFO");
    EXPECT_EQ(found, expected);
}

TEST_F(RealLogTest, EveryRecordIsFollowedThroughCuts) {
    const int nCalls = Scaled(120);
    Collector collector;
    vexlog::Follower follower(LogPath(), collector);
    std::atomic<bool> bDone = false;
    int nRecords = 0;
    std::thread writer([&] {
        nRecords = WriteLog(4, 4, nCalls, kScaleDivisor == 1 ? 400'000 : 20'000, 2000);
        bDone = true;
    });
    bool bLost = false;
    // Polls once after the writers ended, and again as long as a poll finds something.
    for (bool bWasDone = false; follower.Poll() || !bWasDone;) {
        bWasDone = bDone;
        bLost = follower.TakeLost() || bLost;
        std::this_thread::yield();
    }
    writer.join();
    follower.Finish();
    EXPECT_FALSE(bLost);
    EXPECT_GT(nRecords, 0);
    EXPECT_EQ(collector.lines.size(), static_cast<std::size_t>(nRecords));
    EXPECT_EQ(std::set<std::string>(collector.lines.begin(), collector.lines.end()).size(),
              static_cast<std::size_t>(nRecords));
    // Keeps only the unexpected lines, so that the failure is short.
    std::erase_if(collector.lines, [](const std::string& strLine) {
        return strLine.starts_with("record INFO P") && !strLine.ends_with("(torn)");
    });
    EXPECT_THAT(collector.lines, testing::IsEmpty());
}

TEST_F(RealLogTest, TheNumbersAddUp) {
    const int nCalls = Scaled(200);
    const int nRecords = WriteLog(2, 3, nCalls, 0, 0);
    vexlog::Stats stats;
    vexlog::RecordParser parser(stats);
    parser.Feed(ReadWholeFile(LogPath()));
    parser.Finish();
    stats.Finish();
    EXPECT_EQ(stats.Log().cRecords, static_cast<std::uint64_t>(nRecords));
    std::uint64_t cRecords = 0;
    for (std::size_t n = 0; n < stats.FunctionNames().size(); ++n) {
        const vexlog::FunctionStats& function = stats.Of(n);
        EXPECT_EQ(function.cCalls,
                  function.durations.Count() + function.cFailed + function.cOpen + function.cWithoutBegin);
        cRecords += 2 * function.durations.Count() + function.cFailed + function.cOpen + function.cWithoutBegin;
        EXPECT_EQ(function.cWithoutBegin > 0, stats.FunctionNames()[n] == "SetDigestAlg") << stats.FunctionNames()[n];
    }
    EXPECT_EQ(cRecords, static_cast<std::uint64_t>(nRecords));
}

}  // namespace
