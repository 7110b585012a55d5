// The times that --since and --until take. systemd-analyze, which reads times as journalctl does, is the judge.
#include "UserTime.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <cmath>

#include "Command.h"
#include "Row.h"

namespace {

using vexlog::CivilMicroseconds;
using vexlog::SystemMicroseconds;

constexpr SystemMicroseconds kSecond = 1'000'000;
// 2024-03-05 09:07:02.048213 in the zone below
constexpr SystemMicroseconds kNow = 1'709'626'022 * kSecond + 48'213;
constexpr const char* kZone = "Europe/Berlin";

CivilMicroseconds At(int nYear, int nMonth, int nDay, int nHour = 0, int nMinute = 0, int nSecond = 0,
                     int nMicros = 0) {
    return vexlog::ToCivil({nYear, nMonth, nDay, nHour, nMinute, nSecond, nMicros}).value();
}

// Sets the time zone of this process. The rules are those of Berlin; they are written out, because the machine may
// have no zone files.
class Zone {
public:
    Zone() {
        setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
        tzset();
    }
    Zone(const Zone&) = delete;
    Zone& operator=(const Zone&) = delete;
    ~Zone() {
        unsetenv("TZ");
        tzset();
    }
};

struct UserTimeRow : Row {
    std::string strText;
    std::optional<CivilMicroseconds> expected;
};

class UserTimeTest : public testing::TestWithParam<UserTimeRow> {
    const Zone m_zone;
};

TEST_P(UserTimeTest, IsParsed) {
    const vexlog::UserTime time = vexlog::ParseUserTime(GetParam().strText, kNow);
    EXPECT_EQ(time.time, GetParam().expected);
    EXPECT_TRUE(!time.time || time.strFault.empty()) << time.strFault;
}

INSTANTIATE_TEST_SUITE_P(
    Texts, UserTimeTest,
    testing::Values(
        UserTimeRow{{"Date"}, "2024-03-04", At(2024, 3, 4)},
        UserTimeRow{{"Minutes"}, "2024-03-04T08:09", At(2024, 3, 4, 8, 9)},
        UserTimeRow{{"Blank"}, "2024-03-04 08:09:10", At(2024, 3, 4, 8, 9, 10)},
        UserTimeRow{{"Fraction"}, "2024-03-04T08:09:10.5", At(2024, 3, 4, 8, 9, 10, 500'000)},
        UserTimeRow{{"Microseconds"}, "2024-03-04T08:09:10.000007", At(2024, 3, 4, 8, 9, 10, 7)},
        UserTimeRow{{"TimeOfToday"}, "08:09", At(2024, 3, 5, 8, 9)},
        UserTimeRow{{"TimeOfTodayWithSeconds"}, "08:09:10", At(2024, 3, 5, 8, 9, 10)},
        UserTimeRow{{"Weekday"}, "Mon 2024-03-04 08:09", At(2024, 3, 4, 8, 9)},
        UserTimeRow{{"WholeWeekday"}, "monday 2024-03-04", At(2024, 3, 4)},
        UserTimeRow{{"WrongWeekday"}, "Tue 2024-03-04", std::nullopt},
        UserTimeRow{{"WeekdayOfALeapSecond"}, "Sat 2016-12-31 23:59:60", At(2017, 1, 1)},
        UserTimeRow{{"WeekdayAlone"}, "Mon", std::nullopt},
        UserTimeRow{{"WeekdayWithoutABlank"}, "Mon2024-03-04", std::nullopt},
        UserTimeRow{{"OtherWordBeforeADate"}, "Moon 2024-03-04", std::nullopt},
        UserTimeRow{{"Now"}, "now", At(2024, 3, 5, 9, 7, 2, 48213)}, UserTimeRow{{"Today"}, "today", At(2024, 3, 5)},
        UserTimeRow{{"Yesterday"}, "yesterday", At(2024, 3, 4)}, UserTimeRow{{"Tomorrow"}, "tomorrow", At(2024, 3, 6)},
        UserTimeRow{{"DayAndTime"}, "yesterday 09:00", std::nullopt},
        UserTimeRow{{"Utc"}, "2024-03-04 08:09:10 UTC", At(2024, 3, 4, 9, 9, 10)},
        UserTimeRow{{"UtcAsZ"}, "2024-03-04T08:09:10Z", At(2024, 3, 4, 9, 9, 10)},
        UserTimeRow{{"UtcInSummer"}, "2024-07-04 08:09:10 UTC", At(2024, 7, 4, 10, 9, 10)},
        UserTimeRow{{"TodayInUtc"}, "today UTC", At(2024, 3, 5, 1)},
        UserTimeRow{{"LocalZone"}, "Mon 2024-03-04 08:09:10 CET", At(2024, 3, 4, 8, 9, 10)},
        UserTimeRow{{"OtherZone"}, "2024-03-04 08:09:10 PST", std::nullopt},
        UserTimeRow{{"SecondsSince1970"}, "@1709626022", At(2024, 3, 5, 9, 7, 2)},
        UserTimeRow{{"SecondsAgo"}, "2s", At(2024, 3, 5, 9, 7, 0, 48213)},
        UserTimeRow{{"MinutesAgo"}, "10m", At(2024, 3, 5, 8, 57, 2, 48213)},
        UserTimeRow{{"HoursAgo"}, "10h", At(2024, 3, 4, 23, 7, 2, 48213)},
        UserTimeRow{{"DaysAgo"}, "5d", At(2024, 2, 29, 9, 7, 2, 48213)},
        UserTimeRow{{"WeeksAgo"}, "1w", At(2024, 2, 27, 9, 7, 2, 48213)},
        UserTimeRow{{"HoursAndMinutesAgo"}, "1h30min", At(2024, 3, 5, 7, 37, 2, 48213)},
        UserTimeRow{{"OneHourAgo"}, "1 hour ago", At(2024, 3, 5, 8, 7, 2, 48213)},
        UserTimeRow{{"MinusOneHour"}, "-1h", At(2024, 3, 5, 8, 7, 2, 48213)},
        UserTimeRow{{"MinusTenWithoutUnit"}, "-10", At(2024, 3, 5, 9, 6, 52, 48213)},
        UserTimeRow{{"PlusFiveMinutes"}, "+5min", At(2024, 3, 5, 9, 12, 2, 48213)},
        UserTimeRow{{"SeveralUnitsAgo"}, "3 weeks 2 days 1.5h ago", At(2024, 2, 11, 7, 37, 2, 48213)},
        UserTimeRow{{"MillisecondsAgo"}, "48ms 213us ago", At(2024, 3, 5, 9, 7, 2)},
        UserTimeRow{{"MicrosecondSign"}, "213\xC2\xB5s ago", At(2024, 3, 5, 9, 7, 2, 48'000)},
        UserTimeRow{{"SignAndAgo"}, "-1h ago", std::nullopt}, UserTimeRow{{"Nothing"}, "", std::nullopt},
        UserTimeRow{{"BlankAlone"}, " ", std::nullopt}, UserTimeRow{{"Ago"}, " ago", std::nullopt},
        UserTimeRow{{"Sign"}, "-", std::nullopt}, UserTimeRow{{"At"}, "@", std::nullopt},
        UserTimeRow{{"AtWithUnit"}, "@5min", std::nullopt}, UserTimeRow{{"NoUnit"}, "10", std::nullopt},
        UserTimeRow{{"OtherUnit"}, "1 fortnight ago", std::nullopt},
        UserTimeRow{{"TooMany"}, "99999999999m", std::nullopt}, UserTimeRow{{"NotANumber"}, "-nan", std::nullopt},
        UserTimeRow{{"Infinity"}, "-infinity", std::nullopt}, UserTimeRow{{"NoSuchMonth"}, "2024-13-04", std::nullopt},
        UserTimeRow{{"NoSuchDay"}, "2023-02-29", std::nullopt}, UserTimeRow{{"LeapDay"}, "2024-02-29", At(2024, 2, 29)},
        UserTimeRow{{"NoSuchHour"}, "24:00", std::nullopt}, UserTimeRow{{"NoFraction"}, "08:09:10.", std::nullopt},
        UserTimeRow{{"NoSecond"}, "08:09:", std::nullopt}, UserTimeRow{{"LongSecond"}, "08:09:100", std::nullopt},
        UserTimeRow{{"SecondIsNoNumber"}, "08:09:.5", std::nullopt},
        UserTimeRow{{"ShortDate"}, "2024-3-4 8:9:1", At(2024, 3, 4, 8, 9, 1)},
        UserTimeRow{{"ThreeDigits"}, "2024-003-04", std::nullopt}, UserTimeRow{{"NoDigit"}, "2024--04", std::nullopt},
        UserTimeRow{{"ShortYear"}, "24-03-04", std::nullopt}, UserTimeRow{{"HourAlone"}, "2024-03-04 08", std::nullopt},
        UserTimeRow{{"Word"}, "soon", std::nullopt}),
    RowName);

struct FaultRow : Row {
    std::string strText;
    std::string strFault;
};

class UserTimeFaultTest : public testing::TestWithParam<FaultRow> {
    const Zone m_zone;
};

TEST_P(UserTimeFaultTest, IsTold) {
    EXPECT_EQ(vexlog::ParseUserTime(GetParam().strText, kNow).strFault, GetParam().strFault);
}

INSTANTIATE_TEST_SUITE_P(Texts, UserTimeFaultTest,
                         testing::Values(FaultRow{{"Day"}, "2023-02-29", "February 2023 has 28 days"},
                                         FaultRow{{"LeapYear"}, "2024-02-30 10:00", "February 2024 has 29 days"},
                                         FaultRow{{"DayZero"}, "2024-04-00", "April 2024 has 30 days"},
                                         FaultRow{{"Month"}, "2024-13-01", "a year has 12 months"},
                                         FaultRow{{"TimeOfDay"}, "24:00", "there is no such time of day"},
                                         FaultRow{{"Weekday"}, "Sun 2024-03-05", "this day is a Tuesday"},
                                         FaultRow{{"Zone"}, "09:07 EST", "the zone must be UTC or the local one"},
                                         FaultRow{{"Form"}, "soon", ""}),
                         RowName);

// The clock was set forward from 02:00 to 03:00 half an hour ago.
TEST(UserTimeZoneTest, AnHourAgoIsAnHourAgoAlsoWhenTheClockWasSet) {
    const Zone zone;
    const SystemMicroseconds halfPastThree = 1'711'848'600 * kSecond;  // 2024-03-31 01:30 UTC
    EXPECT_EQ(vexlog::ParseUserTime("now", halfPastThree).time, At(2024, 3, 31, 3, 30));
    EXPECT_EQ(vexlog::ParseUserTime("1 hour ago", halfPastThree).time, At(2024, 3, 31, 1, 30));
    EXPECT_EQ(vexlog::ParseUserTime("1h", halfPastThree).time, At(2024, 3, 31, 1, 30));
}

// At 01:00 UTC the clock is set back from 03:00 to 02:00, so a local time from 02:00 on means two moments. Records of
// the later ones were left out.
TEST(UserTimeZoneTest, NoRecordIsLeftOutWhenTheClockIsSetBack) {
    using enum vexlog::TimeUse;
    const Zone zone;
    const auto oct = [](int nHour, int nMinute) { return At(2024, 10, 27, nHour, nMinute); };
    constexpr SystemMicroseconds kMinute = 60 * kSecond;
    constexpr SystemMicroseconds kSetBack = 1'729'990'800 * kSecond;
    const struct {
        int nMinutes;  // from the change to the moment
        vexlog::TimeUse use;
        CivilMicroseconds expected;
    } rows[] = {
        {-61, kFrom, oct(1, 59)},   {-60, kFrom, oct(2, 0)},    {-59, kFrom, oct(2, 0)},   {-15, kFrom, oct(2, 0)},
        {-1, kFrom, oct(2, 0)},     {0, kFrom, oct(2, 0)},      {1, kFrom, oct(2, 1)},     {90, kFrom, oct(3, 30)},
        {-61, kUpTo, oct(1, 59)},   {-15, kUpTo, oct(2, 45)},   {0, kUpTo, oct(3, 0) - 1}, {1, kUpTo, oct(3, 0) - 1},
        {15, kUpTo, oct(3, 0) - 1}, {59, kUpTo, oct(3, 0) - 1}, {60, kUpTo, oct(3, 0)},    {61, kUpTo, oct(3, 1)},
    };
    for (const auto& row : rows) {
        const SystemMicroseconds moment = kSetBack + row.nMinutes * kMinute;
        const std::string strSeconds = std::to_string(moment / kSecond);
        const std::string strUtc = vexlog::FormatCivil(moment, ' ') + " UTC";
        // At that moment, two hours after the change, and in the next summer.
        for (const SystemMicroseconds now : {moment, kSetBack + 120 * kMinute, kSetBack + 300'000 * kMinute}) {
            const std::string strSpan = std::to_string((now - moment) / kSecond) + "s";
            for (const std::string& strText : {"@" + strSeconds, strUtc, strSpan, strSpan + " ago", "-" + strSpan}) {
                EXPECT_EQ(vexlog::ParseUserTime(strText, now, row.use).time, row.expected)
                    << row.nMinutes << " " << strText;
            }
        }
        EXPECT_EQ(vexlog::ParseUserTime("now", moment, row.use).time, row.expected) << row.nMinutes;
        // A local time is taken as the log has it.
        EXPECT_EQ(vexlog::ParseUserTime("2024-10-27 02:30", moment, row.use).time, oct(2, 30));
    }
}

// Half of the world's zones have no other name.
TEST(UserTimeZoneTest, ANumberBehindABlankIsAZone) {
    constexpr const char* kNotHere = "the zone must be UTC or the local one";
    const struct {
        const char* pszZone;
        const char* pszText;
        std::optional<CivilMicroseconds> expected;
        const char* pszFault;
    } rows[] = {
        {"<-03>3", "2024-03-05 09:07 -03", At(2024, 3, 5, 9, 7), ""},
        {"<-03>3", "Tue 2024-03-05 -03", At(2024, 3, 5), ""},
        {"<-03>3", "09:07:02 -03", At(2024, 3, 5, 9, 7, 2), ""},
        {"<-03>3", "today -03", At(2024, 3, 5), ""},
        {"<+0530>-5:30", "2024-03-05 09:07 +0530", At(2024, 3, 5, 9, 7), ""},
        {"<-03>3", "2024-03-05 09:07 +0530", std::nullopt, kNotHere},
        {"<-03>3", "2024-03-05 09:07-03", std::nullopt, ""},
        {"<-03>3", "2024-03-05", At(2024, 3, 5), ""},
        {"<-03>3", "-03", At(2024, 3, 5, 5, 6, 59, 48'213), ""},
    };
    for (const auto& row : rows) {
        setenv("TZ", row.pszZone, 1);
        tzset();
        const vexlog::UserTime time = vexlog::ParseUserTime(row.pszText, kNow);
        EXPECT_EQ(time.time, row.expected) << row.pszText;
        EXPECT_EQ(time.strFault, row.pszFault) << row.pszText;
    }
    unsetenv("TZ");
    tzset();
}

// What systemd-analyze makes of a text, in seconds since 1970. Nothing: it refuses the text.
std::optional<double> SystemdTime(const std::string& strText) {
    const CommandResult result =
        RunCommand(std::string("TZ=") + kZone + " systemd-analyze timestamp -- '" + strText + "'");
    const std::size_t nAt = result.strOutput.find('@');
    if (result.nStatus != 0 || nAt == std::string::npos) {
        return std::nullopt;
    }
    return std::stod(result.strOutput.substr(nAt + 1));
}

class SystemdTimeTest : public testing::TestWithParam<const char*> {};

// The clock goes on between the two, so a second is allowed. Midnight, too, may come between them: then once more.
TEST_P(SystemdTimeTest, MeansTheSame) {
    setenv("TZ", kZone, 1);
    tzset();
    const std::optional<double> expected = SystemdTime(GetParam());
    ASSERT_TRUE(expected) << "systemd-analyze refuses " << GetParam();
    const std::optional<CivilMicroseconds> civil =
        vexlog::CivilOfSystem(static_cast<SystemMicroseconds>(std::llround(*expected * 1e6)));
    const SystemMicroseconds after = vexlog::SystemNow();
    vexlog::UserTime time = vexlog::ParseUserTime(GetParam(), after);
    unsetenv("TZ");
    tzset();
    ASSERT_TRUE(time.time) << time.strFault;
    EXPECT_LE(std::abs(*time.time - *civil), 10 * kSecond)
        << vexlog::FormatCivil(*time.time) << " and not " << vexlog::FormatCivil(*civil);
}

INSTANTIATE_TEST_SUITE_P(Texts, SystemdTimeTest,
                         testing::Values("now", "today", "yesterday", "tomorrow", "1 hour ago", "-1h", "+5min", "-10",
                                         "10 ago", "1h30min ago", "1.5h ago", "3 weeks 2 days ago", "-1 M", "1y ago",
                                         "300ms20s 5day ago", "-1h 20min", "- 1h", "1hours ago", "2012-11-23",
                                         "2012-11-23 11:12", "2012-11-23 11:12:13", "2012-11-23 11:12:13.5",
                                         "2012-7-3 1:2:3", "9:07", "11:12", "11:12:13", "Fri 2012-11-23 11:12",
                                         "friday 2012-11-23", "2012-11-23 11:12:13 UTC", "2012-07-23 11:12:13 UTC",
                                         "2012-07-23 11:12:13", "11:12 UTC", "today UTC", "@1395716396",
                                         "@1395716396.5"));

}  // namespace
