// pv_log and its helpers: one record a call, appended to the log's default file.
#include <gmock/gmock.h>
#include <pthread.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <clocale>
#include <cstdint>
#include <filesystem>
#include <regex>

#include "ForkWhile.h"
#include "Row.h"
#include "Scale.h"
#include "TempDirectory.h"
#include "WriteLog.h"

namespace {

class MinimalLoggerTest : public testing::Test {
protected:
    MinimalLoggerTest() {
        setenv("VEX_TEST_LOG_DIR", m_directory.Path().c_str(), 1);
        std::setlocale(LC_ALL, "C.UTF-8");
    }
    ~MinimalLoggerTest() override { std::setlocale(LC_ALL, "C"); }

    std::string Bytes() const { return ReadWholeFile(m_directory.Path("PILog.txt")); }

    // The time and process parts of a record that this thread writes now.
    static std::string Front() {
        const auto nThread = static_cast<std::uint32_t>(pthread_self());
        return "\\[\\d\\d/[A-Z][a-z][a-z]/\\d{4}:\\d\\d:\\d\\d:\\d\\d [A-Z]+\\] \\[" + std::to_string(getpid()) + " " +
               std::to_string(nThread) + "d\\]";
    }

    const TempDirectory m_directory;
};

MATCHER_P(Matches, strPattern, "") {
    return std::regex_match(arg, std::regex(strPattern));
}

struct Level {
    int nLevel;
    const char* pszWord;
};

TEST_F(MinimalLoggerTest, ARecordIsALineWithItsLevelsWord) {
    for (const Level& level : {Level{1, "DEBU"}, Level{2, "WARN"}, Level{3, "ERRO"}, Level{0, "INFO"}, Level{4, "INFO"},
                               Level{-1, "INFO"}, Level{INT_MAX, "INFO"}, Level{INT_MIN, "INFO"}}) {
        std::filesystem::remove(m_directory.Path("PILog.txt"));
        pv_log(level.nLevel, L"%ls %d", L"started \x00e4", 7);
        EXPECT_THAT(Bytes(), Matches(Front() + "\\[" + level.pszWord + "\\]started \xC3\xA4 7\n"));
    }
}

TEST_F(MinimalLoggerTest, OnlyTheOwnerMayUseANewFile) {
    const mode_t before = umask(0);
    pv_log(1, L"one");
    umask(before);
    struct stat status {};
    ASSERT_EQ(stat(m_directory.Path("PILog.txt").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
}

TEST_F(MinimalLoggerTest, RecordsAreAppended) {
    m_directory.Write("PILog.txt", "before\n");
    pv_log(1, L"one");
    pv_log(2, L"");
    EXPECT_THAT(Bytes(), Matches("before\n" + Front() + "\\[DEBU\\]one\n" + Front() + "\\[WARN\\]\n"));
}

TEST_F(MinimalLoggerTest, AMessageEndsAt32767Characters) {
    for (const size_t nLength : {32'766U, 32'767U, 32'768U, 40'000U}) {
        std::filesystem::remove(m_directory.Path("PILog.txt"));
        pv_log(0, L"%ls", std::wstring(nLength, L'\x00e4').c_str());
        const std::string bytes = Bytes();
        const size_t nMessage = bytes.find("[INFO]") + 6;
        ASSERT_LT(nMessage, bytes.size());
        EXPECT_EQ(bytes.size() - nMessage, std::min<size_t>(nLength, 32'767) * 2 + 1);
        EXPECT_TRUE(bytes.ends_with("\xC3\xA4\n"));
    }
}

// A message that the locale cannot encode leaves a line without an end. The next record continues that line.
TEST_F(MinimalLoggerTest, AMessageThatTheLocaleCannotEncodeLeavesTimeAndProcess) {
    std::setlocale(LC_ALL, "C");
    pv_log(1, L"%ls", L"\x00e4");
    EXPECT_THAT(Bytes(), Matches(Front()));
    pv_log(1, L"next");
    EXPECT_THAT(Bytes(), Matches(Front() + Front() + "\\[DEBU\\]next\n"));
    std::setlocale(LC_ALL, "C.UTF-8");
    pv_log(1, L"%ls", std::wstring(1, static_cast<wchar_t>(0xD800)).c_str());
    EXPECT_THAT(Bytes(), Matches(Front() + Front() + "\\[DEBU\\]next\n" + Front()));
}

TEST_F(MinimalLoggerTest, FollowsAChangeOfTheTimeZone) {
    for (const char* pszZone : {"AAA-5", "BBB+3", "AAA-5"}) {
        setenv("TZ", pszZone, 1);
        pv_log(0, L"text");
    }
    unsetenv("TZ");
    EXPECT_THAT(Bytes(), Matches("[^\n]* AAA\\] [^\n]*\n[^\n]* BBB\\] [^\n]*\n[^\n]* AAA\\] [^\n]*\n"));
}

// Also in a locale whose conversions were never used before.
TEST_F(MinimalLoggerTest, AForkedChildLogs) {
    ForkWhile(4, Scaled(300), [] { pv_log(0, L"%ls", L"text \x00e4"); });
}

// Something else in the place of the file.
struct Obstacle : Row {
    void (*fnMake)(const std::string& strPath, const std::string& strOther);
};

class ObstacleTest : public MinimalLoggerTest, public testing::WithParamInterface<Obstacle> {};

TEST_P(ObstacleTest, IsReportedOnStandardOutputAndNotChanged) {
    constexpr const char* kText = "system error: error to open log file[/tmp/PILog.txt].\n";
    const std::string strOther = m_directory.Write("other", "another's text");
    GetParam().fnMake(m_directory.Path("PILog.txt"), strOther);
    testing::internal::CaptureStdout();
    pv_log(1, L"lost");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), kText);
    testing::internal::CaptureStdout();
    EXPECT_EQ(pv_init_log(), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), kText);
    EXPECT_EQ(ReadWholeFile(strOther), "another's text");
}

INSTANTIATE_TEST_SUITE_P(, ObstacleTest,
                         testing::Values(Obstacle{"Directory",
                                                  [](const std::string& strPath, const std::string&) {
                                                      std::filesystem::create_directory(strPath);
                                                  }},
                                         Obstacle{"Pipe", [](const std::string& strPath,
                                                             const std::string&) { mkfifo(strPath.c_str(), 0666); }},
                                         Obstacle{"Link",
                                                  [](const std::string& strPath, const std::string& strOther) {
                                                      std::filesystem::create_symlink(strOther, strPath);
                                                  }},
                                         Obstacle{"HardLink",
                                                  [](const std::string& strPath, const std::string& strOther) {
                                                      std::filesystem::create_hard_link(strOther, strPath);
                                                  }}),
                         RowName);

TEST_F(MinimalLoggerTest, AFileOfAnotherUserIsNotWrittenTo) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "skipped: only root can give a file to another user";
    }
    const std::string strLog = m_directory.Write("PILog.txt", "theirs");
    ASSERT_EQ(chmod(strLog.c_str(), 0666), 0);
    ASSERT_EQ(chown(strLog.c_str(), 4711, static_cast<gid_t>(-1)), 0);
    testing::internal::CaptureStdout();
    pv_log(1, L"lost");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "system error: error to open log file[/tmp/PILog.txt].\n");
    EXPECT_EQ(Bytes(), "theirs");
}

TEST_F(MinimalLoggerTest, TheStreamAppendsAndBelongsToTheCaller) {
    m_directory.Write("PILog.txt", "before ");
    std::FILE* const pStream = pv_init_log();
    ASSERT_NE(pStream, nullptr);
    std::fputs("own text", pStream);
    pv_uninit(pStream);
    EXPECT_EQ(Bytes(), "before own text");
    pv_uninit(nullptr);
}

}  // namespace
