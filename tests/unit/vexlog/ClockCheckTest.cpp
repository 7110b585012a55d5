// Which times of a log come from a wrong clock.
#include "LogClocks.h"

#include <gmock/gmock.h>

#include "Row.h"
#include "UserTime.h"

namespace {

using vexlog::CivilMicroseconds;
using vexlog::ClockCheck;

CivilMicroseconds At(const std::string& strTime) {
    const auto time = vexlog::ParseUserTime(strTime, 0).time;
    EXPECT_TRUE(time) << strTime;
    return time.value_or(0);
}

const CivilMicroseconds kNow = At("2024-03-10T12:00");

// "2024-03-05T09:00:00 to 2024-03-05T09:10:00: 2 wrong"
std::vector<std::string> Described(const vexlog::Periods& periods) {
    constexpr std::size_t kToSeconds = 19;
    std::vector<std::string> lines;
    for (const vexlog::Period& period : periods.All()) {
        lines.push_back(vexlog::FormatCivil(period.first).substr(0, kToSeconds) + " to " +
                        vexlog::FormatCivil(period.last).substr(0, kToSeconds) + ": " +
                        std::to_string(period.cRecords) + (period.bWrong ? " wrong" : ""));
    }
    return lines;
}

struct ClockRow : Row {
    std::vector<std::string> times;  // in the order of the log
    std::vector<std::string> expected;
    std::uint64_t cWrong = 0;
};

class ClockCheckTest : public testing::TestWithParam<ClockRow> {};

TEST_P(ClockCheckTest, FindsTheTimesThatDoNotFitTheirPlace) {
    ClockCheck clock;
    for (const std::string& strTime : GetParam().times) {
        clock.Add(At(strTime));
    }
    const vexlog::Periods periods = clock.Judge(kNow);
    EXPECT_THAT(Described(periods), testing::ElementsAreArray(GetParam().expected));
    EXPECT_EQ(periods.CountWrong(), GetParam().cWrong);
}

INSTANTIATE_TEST_SUITE_P(
    Logs, ClockCheckTest,
    testing::Values(
        ClockRow{{"None"}, {}, {}, 0},
        ClockRow{{"OnePeriod"},
                 {"2024-03-05T09:00", "2024-03-05T09:30", "2024-03-05T09:20"},
                 {"2024-03-05T09:00:00 to 2024-03-05T09:30:00: 3"},
                 0},
        ClockRow{{"ANightWithoutRecordsIsRight"},
                 {"2024-03-04T18:00", "2024-03-05T09:00", "2024-03-05T09:10"},
                 {"2024-03-04T18:00:00 to 2024-03-04T18:00:00: 1", "2024-03-05T09:00:00 to 2024-03-05T09:10:00: 2"},
                 0},
        ClockRow{
            {"OneRecordDaysAhead"},
            {"2024-03-05T09:00", "2024-03-08T09:00", "2024-03-05T09:10"},
            {"2024-03-05T09:00:00 to 2024-03-05T09:10:00: 2", "2024-03-08T09:00:00 to 2024-03-08T09:00:00: 1 wrong"},
            1},
        ClockRow{
            {"OneRecordDaysBack"},
            {"2024-03-05T09:00", "2024-02-05T09:00", "2024-03-05T09:10", "2024-03-05T09:20"},
            {"2024-02-05T09:00:00 to 2024-02-05T09:00:00: 1 wrong", "2024-03-05T09:00:00 to 2024-03-05T09:20:00: 3"},
            1},
        // In the order of time, but no log is that old.
        ClockRow{
            {"AClockThatWasNotSetYet"},
            {"1970-01-01T00:00:05", "1970-01-01T00:00:06", "2024-03-05T09:00"},
            {"1970-01-01T00:00:05 to 1970-01-01T00:00:06: 2 wrong", "2024-03-05T09:00:00 to 2024-03-05T09:00:00: 1"},
            2},
        ClockRow{
            {"LaterThanNow"},
            {"2024-03-05T09:00", "2024-03-12T12:01"},
            {"2024-03-05T09:00:00 to 2024-03-05T09:00:00: 1", "2024-03-12T12:01:00 to 2024-03-12T12:01:00: 1 wrong"},
            1},
        ClockRow{{"AnotherZoneIsNotLaterThanNow"},
                 {"2024-03-05T09:00", "2024-03-12T12:00"},
                 {"2024-03-05T09:00:00 to 2024-03-05T09:00:00: 1", "2024-03-12T12:00:00 to 2024-03-12T12:00:00: 1"},
                 0},
        ClockRow{{"AllImpossible"},
                 {"1970-01-01T00:00:05", "1970-01-01T00:00:06"},
                 {"1970-01-01T00:00:05 to 1970-01-01T00:00:06: 2"},
                 0},
        ClockRow{{"AnHourIsNoGap"},
                 {"2024-03-05T09:00", "2024-03-05T10:00"},
                 {"2024-03-05T09:00:00 to 2024-03-05T10:00:00: 2"},
                 0},
        ClockRow{
            {"AnHourIsNoGapBehindAJump"},
            {"2024-03-05T09:00", "2024-03-05T12:00", "2024-03-05T10:00", "2024-03-05T10:00"},
            {"2024-03-05T09:00:00 to 2024-03-05T10:00:00: 3", "2024-03-05T12:00:00 to 2024-03-05T12:00:00: 1 wrong"},
            1},
        ClockRow{
            {"MoreThanAnHourIsAGap"},
            {"2024-03-05T09:00", "2024-03-05T10:00:01", "2024-03-05T09:00"},
            {"2024-03-05T09:00:00 to 2024-03-05T09:00:00: 2", "2024-03-05T10:00:01 to 2024-03-05T10:00:01: 1 wrong"},
            1},
        // A process was stopped for the night and wrote its last record in the morning.
        ClockRow{{"ALateRecordDoesNotMakeADayWrong"},
                 {"2024-03-04T18:00", "2024-03-04T18:01", "2024-03-05T09:00", "2024-03-04T18:02", "2024-03-05T09:01"},
                 {"2024-03-04T18:00:00 to 2024-03-04T18:02:00: 3", "2024-03-05T09:00:00 to 2024-03-05T09:01:00: 2"},
                 0},
        ClockRow{
            {"TheClockWasSetBack"},
            {"2024-03-07T09:00", "2024-03-05T09:00", "2024-03-05T09:01"},
            {"2024-03-05T09:00:00 to 2024-03-05T09:01:00: 2", "2024-03-07T09:00:00 to 2024-03-07T09:00:00: 1 wrong"},
            1},
        // The log would be in order without its first record, too.
        ClockRow{
            {"TheSecondRecordDaysBack"},
            {"2024-03-05T09:00", "2024-03-01T09:00", "2024-03-05T09:01"},
            {"2024-03-01T09:00:00 to 2024-03-01T09:00:00: 1 wrong", "2024-03-05T09:00:00 to 2024-03-05T09:01:00: 2"},
            1},
        ClockRow{
            {"TheLaterOfTwoClocks"},
            {"2024-03-05T09:00", "2024-03-01T09:00"},
            {"2024-03-01T09:00:00 to 2024-03-01T09:00:00: 1", "2024-03-05T09:00:00 to 2024-03-05T09:00:00: 1 wrong"},
            1},
        ClockRow{
            {"OneClockIsLikelierThanTwo"},
            {"2024-03-07T09:00", "2024-03-07T09:01", "2024-03-05T09:00", "2024-03-06T09:00"},
            {"2024-03-05T09:00:00 to 2024-03-05T09:00:00: 1 wrong",
             "2024-03-06T09:00:00 to 2024-03-06T09:00:00: 1 wrong", "2024-03-07T09:00:00 to 2024-03-07T09:01:00: 2"},
            2},
        ClockRow{
            {"SeveralWrongClocks"},
            {"2024-03-05T09:00", "2024-03-01T09:00", "2024-03-05T09:01", "2024-03-02T09:00", "2024-03-05T09:02"},
            {"2024-03-01T09:00:00 to 2024-03-01T09:00:00: 1 wrong",
             "2024-03-02T09:00:00 to 2024-03-02T09:00:00: 1 wrong", "2024-03-05T09:00:00 to 2024-03-05T09:02:00: 3"},
            2}),
    RowName);

TEST(ClockCheckRangeTest, LeavesOutWhatIsWrong) {
    ClockCheck clock;
    EXPECT_FALSE(clock.Judge(kNow).First());
    for (const char* const pszTime :
         {"2024-03-05T09:00", "1970-01-01", "2024-03-05T09:02", "2024-03-09", "2024-03-05T09:01"}) {
        clock.Add(At(pszTime));
    }
    const vexlog::Periods periods = clock.Judge(kNow);
    EXPECT_EQ(periods.First(), At("2024-03-05T09:00"));
    EXPECT_EQ(periods.Last(), At("2024-03-05T09:02"));
    EXPECT_TRUE(periods.IsWrong(At("1970-01-01")));
    EXPECT_FALSE(periods.IsWrong(At("2024-03-05T09:01")));
    EXPECT_TRUE(periods.IsWrong(At("2024-03-09")));
}

struct LogTime {
    std::string strLog;
    std::string strTime;
    bool bSelected = true;
};

struct LogsRow : Row {
    std::vector<LogTime> times;  // in the order in which they are read
    std::vector<std::string> expected;
};

class LogClocksTest : public testing::TestWithParam<LogsRow> {};

TEST_P(LogClocksTest, JudgesEachLogAndShowsWhatIsSelected) {
    vexlog::LogClocks clocks;
    for (const LogTime& time : GetParam().times) {
        clocks.Add(time.strLog, At(time.strTime), time.bSelected);
    }
    EXPECT_THAT(Described(clocks.Judge(kNow)), testing::ElementsAreArray(GetParam().expected));
}

INSTANTIATE_TEST_SUITE_P(
    Logs, LogClocksTest,
    testing::Values(
        LogsRow{{"None"}, {}, {}},
        // The first log was ahead until its clock was set, so that its right records are read last.
        LogsRow{{"AWrongClockThatHoldsUpItsLog"},
                {{"other", "2024-03-05T12:00"},
                 {"other", "2024-03-05T12:01"},
                 {"other", "2024-03-05T12:02"},
                 {"ahead", "2024-03-06T09:00"},
                 {"ahead", "2024-03-05T09:00"},
                 {"ahead", "2024-03-05T09:01"}},
                {"2024-03-05T09:00:00 to 2024-03-05T09:01:00: 2", "2024-03-05T12:00:00 to 2024-03-05T12:02:00: 3",
                 "2024-03-06T09:00:00 to 2024-03-06T09:00:00: 1 wrong"}},
        LogsRow{{"WrongInOneLogAndRightInAnother"},
                {{"a", "2024-03-05T09:00"},
                 {"b", "2024-03-06T09:00"},
                 {"a", "2024-03-06T09:30"},
                 {"a", "2024-03-05T09:01"}},
                {"2024-03-05T09:00:00 to 2024-03-05T09:01:00: 2", "2024-03-06T09:00:00 to 2024-03-06T09:30:00: 2"}},
        LogsRow{{"AnHourBetweenTwoLogsIsNoGap"},
                {{"a", "2024-03-05T09:00"}, {"b", "2024-03-05T10:00"}},
                {"2024-03-05T09:00:00 to 2024-03-05T10:00:00: 2"}},
        LogsRow{{"MoreIsAGap"},
                {{"a", "2024-03-05T09:00"}, {"b", "2024-03-05T10:00:01"}},
                {"2024-03-05T09:00:00 to 2024-03-05T09:00:00: 1", "2024-03-05T10:00:01 to 2024-03-05T10:00:01: 1"}},
        LogsRow{
            {"WrongInBoth"},
            {{"a", "2024-03-05T09:00"},
             {"b", "2024-03-05T09:00"},
             {"a", "2024-03-06T09:00"},
             {"b", "2024-03-06T09:30"},
             {"a", "2024-03-05T09:01"},
             {"b", "2024-03-05T09:01"}},
            {"2024-03-05T09:00:00 to 2024-03-05T09:01:00: 4", "2024-03-06T09:00:00 to 2024-03-06T09:30:00: 2 wrong"}},
        LogsRow{
            {"ALogWithoutAnyPossibleTime"},
            {{"a", "1970-01-01T00:00:05"}, {"b", "2024-03-05T09:00"}},
            {"1970-01-01T00:00:05 to 1970-01-01T00:00:05: 1 wrong", "2024-03-05T09:00:00 to 2024-03-05T09:00:00: 1"}},
        LogsRow{{"NoPossibleTimeAtAll"},
                {{"a", "1970-01-01T00:00:05"}, {"b", "1970-01-01T12:00"}},
                {"1970-01-01T00:00:05 to 1970-01-01T00:00:05: 1", "1970-01-01T12:00:00 to 1970-01-01T12:00:00: 1"}},
        // The last hour of a log whose wrong clock is a day ahead: alone, it has more wrong records than right ones.
        LogsRow{
            {"WhatIsNotSelectedCountsAsEvidence"},
            {{"", "2024-03-04T09:00", false},
             {"", "2024-03-05T10:00"},
             {"", "2024-03-04T09:01", false},
             {"", "2024-03-05T10:01"},
             {"", "2024-03-04T09:02", false},
             {"", "2024-03-05T08:00"}},
            {"2024-03-05T08:00:00 to 2024-03-05T08:00:00: 1", "2024-03-05T10:00:00 to 2024-03-05T10:01:00: 2 wrong"}},
        LogsRow{{"NothingSelected"}, {{"", "2024-03-05T09:00", false}}, {}}),
    RowName);

// Two processes of different zones write in turn, more often than the runs that are kept.
TEST(ClockCheckBoundTest, ManyJumpsWidenTheGap) {
    const CivilMicroseconds start = At("2024-03-05T09:00");
    const CivilMicroseconds zone = 2 * ClockCheck::kGap;
    for (const bool bMore : {false, true}) {
        ClockCheck clock;
        const std::size_t cJumps = ClockCheck::kMostRuns + (bMore ? 1 : 0);
        for (std::size_t n = 0; n < cJumps; ++n) {
            clock.Add(start + (n % 2 == 0 ? 0 : zone));
        }
        const vexlog::Periods periods = clock.Judge(kNow);
        ASSERT_EQ(periods.All().size(), bMore ? 1U : 2U);
        std::uint64_t cRecords = 0;
        for (const vexlog::Period& period : periods.All()) {
            cRecords += period.cRecords;
        }
        EXPECT_EQ(cRecords, cJumps);
    }
}

}  // namespace
