// The limit of the log lines that clients can cause.
#include "Log.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <unistd.h>

#include <array>
#include <climits>
#include <string>
#include <vector>

#include "ChildProcess.h"

namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using vexfiled::Log;

// How many lines were written before one was lost.
int WriteUntilFull() {
    const std::string strLong(10'000, 'x');
    int nWritten = 0;
    while (Log::ToStandardError(strLong)) {
        ++nWritten;
    }
    return nWritten;
}

class LogLimit : public testing::Test {
protected:
    Log MakeLog(bool bVerbose = false) {
        return Log(
            bVerbose,
            [this](std::string_view strText) {
                if (m_bWritable) {
                    m_lines.emplace_back(strText);
                }
                return m_bWritable;
            },
            [this] { return m_now; });
    }

    void Flood(Log& log, int nLines) {
        for (int i = 0; i < nLines; ++i) {
            log.Refused("no");
        }
    }

    std::chrono::steady_clock::time_point m_now{1000h};
    std::vector<std::string> m_lines;
    bool m_bWritable = true;
};

TEST_F(LogLimit, ABurstIsWrittenAndThenNoMore) {
    Log log = MakeLog();
    Flood(log, Log::kBurst);
    EXPECT_EQ(m_lines.size(), static_cast<std::size_t>(Log::kBurst));
    Flood(log, 1000);
    log.ReportMissing();
    EXPECT_EQ(m_lines.size(), static_cast<std::size_t>(Log::kBurst));
}

TEST_F(LogLimit, CountsTheLinesThatWereLeftOut) {
    Log log = MakeLog();
    Flood(log, Log::kBurst + 5);
    m_lines.clear();
    m_now += 999ms;
    log.ReportMissing();
    EXPECT_THAT(m_lines, ElementsAre());
    m_now += 1ms;
    log.ReportMissing();
    log.ReportMissing();
    EXPECT_THAT(m_lines, ElementsAre("5 more lines about clients left out"));
}

TEST_F(LogLimit, AllowsOneMoreLineEachSecond) {
    Log log = MakeLog();
    Flood(log, Log::kBurst);
    m_lines.clear();
    m_now += 2500ms;
    Flood(log, 4);
    EXPECT_THAT(m_lines, ElementsAre("no", "no"));
    m_now += 1500ms;  // with the half second before, this is two seconds
    m_lines.clear();
    Flood(log, 4);
    EXPECT_THAT(m_lines, ElementsAre("2 more lines about clients left out", "no"));
    m_now += 1h;
    m_lines.clear();
    Flood(log, 100);
    EXPECT_EQ(m_lines.size(), static_cast<std::size_t>(Log::kBurst));
}

TEST_F(LogLimit, EventsAreAlwaysWritten) {
    Log log = MakeLog();
    Flood(log, 1000);
    m_lines.clear();
    log.Event("stopping");
    EXPECT_THAT(m_lines, ElementsAre("stopping"));
}

TEST_F(LogLimit, WritesDetailsOnlyWhenVerbose) {
    Log quiet = MakeLog();
    quiet.Detail("write");
    EXPECT_FALSE(quiet.IsVerbose());
    EXPECT_THAT(m_lines, ElementsAre());
    Log verbose = MakeLog(true);
    verbose.Detail("write");
    EXPECT_TRUE(verbose.IsVerbose());
    EXPECT_THAT(m_lines, ElementsAre("write"));
}

TEST_F(LogLimit, CountsLinesThatCouldNotBeWritten) {
    Log log = MakeLog(true);
    m_bWritable = false;
    log.Event("one");
    log.Refused("two");
    log.Detail("three");
    log.ReportMissing();
    m_bWritable = true;
    log.Event("four");
    log.Event("five");
    EXPECT_THAT(m_lines, ElementsAre("3 lines lost: the log could not be written", "four", "five"));
}

TEST_F(LogLimit, CountsLinesOnUntilTheirNumberIsWritten) {
    Log log = MakeLog();
    Flood(log, Log::kBurst + 5);
    m_lines.clear();
    for (const bool bWritable : {false, true}) {
        m_bWritable = bWritable;
        m_now += 1s;
        log.ReportMissing();
    }
    EXPECT_THAT(m_lines, ElementsAre("5 more lines about clients left out"));
}

TEST(LogToStandardError, BeginsWithTheTimeAndTheProgram) {
    ExpectChildPasses([] {
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        ASSERT_EQ(dup2(ends[1], STDERR_FILENO), STDERR_FILENO);
        ASSERT_TRUE(Log::ToStandardError("text"));
        std::array<char, 100> line{};
        const ssize_t cb = read(ends[0], line.data(), line.size());
        ASSERT_GT(cb, 0);
        EXPECT_THAT(std::string(line.data(), static_cast<std::size_t>(cb)),
                    testing::MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} vexfiled: text\n"));
    });
}

// If the log waited for its reader, all clients would wait.
TEST(LogToStandardError, DropsLinesThatNobodyReads) {
    ExpectChildPasses([] {
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        ASSERT_EQ(dup2(ends[1], STDERR_FILENO), STDERR_FILENO);
        ASSERT_GT(WriteUntilFull(), 0);
        std::string strPipe(PIPE_BUF, '\0');
        ASSERT_EQ(read(ends[0], strPipe.data(), strPipe.size()), PIPE_BUF);
        EXPECT_EQ(strPipe.find('\n'), strPipe.size() - 1) << "each line has its line end, although its text is cut";
        EXPECT_TRUE(Log::ToStandardError("again"));
    });
}

TEST(LogToStandardError, DropsLinesForATerminalThatIsHeldUp) {
    ExpectChildPasses([] {
        int nReader = -1;
        int nTerminal = -1;
        ASSERT_EQ(openpty(&nReader, &nTerminal, nullptr, nullptr, nullptr), 0);
        ASSERT_EQ(dup2(nTerminal, STDERR_FILENO), STDERR_FILENO);
        EXPECT_GT(WriteUntilFull(), 0);
        EXPECT_EQ(fcntl(nTerminal, F_GETFL) & O_NONBLOCK, 0) << "other processes use the terminal, too";
    });
}

}  // namespace
