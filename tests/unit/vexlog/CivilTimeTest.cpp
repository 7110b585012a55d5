#include "CivilTime.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include "Row.h"

namespace {

using vexlog::CivilMicroseconds;

CivilMicroseconds At(int nYear, int nMonth, int nDay, int nHour = 0, int nMinute = 0, int nSecond = 0,
                     int nMicros = 0) {
    return vexlog::ToCivil({nYear, nMonth, nDay, nHour, nMinute, nSecond, nMicros}).value();
}

// Compares with libc day by day.
TEST(CivilTimeTest, AgreesWithLibc) {
    for (time_t nSeconds = -80LL * 366 * 86400; nSeconds < 200LL * 366 * 86400; nSeconds += 86400 - 7) {
        std::tm fields = {};
        ASSERT_NE(gmtime_r(&nSeconds, &fields), nullptr);
        const CivilMicroseconds time =
            At(fields.tm_year + 1900, fields.tm_mon + 1, fields.tm_mday, fields.tm_hour, fields.tm_min, fields.tm_sec);
        ASSERT_EQ(time, nSeconds * 1'000'000);
        char szExpected[64];
        strftime(szExpected, sizeof szExpected, "%Y-%m-%dT%H:%M:%S.000000", &fields);
        ASSERT_EQ(vexlog::FormatCivil(time), szExpected);
    }
}

TEST(CivilTimeTest, TheMicrosecondsOfTimesBefore1970ArePositive) {
    EXPECT_EQ(vexlog::MicrosecondOf(At(1969, 12, 31, 23, 59, 59, 7)), 7);
    EXPECT_EQ(vexlog::FormatCivil(At(1969, 12, 31, 23, 59, 59, 7), ' '), "1969-12-31 23:59:59.000007");
}

struct UserTimeRow : Row {
    std::string strText;
    std::optional<CivilMicroseconds> expected;
};

class UserTimeTest : public testing::TestWithParam<UserTimeRow> {};

TEST_P(UserTimeTest, IsParsed) {
    EXPECT_EQ(vexlog::ParseUserTime(GetParam().strText, At(2024, 3, 5, 9, 7, 2, 48213)), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, UserTimeTest,
    testing::Values(
        UserTimeRow{{"Date"}, "2024-03-04", At(2024, 3, 4)},
        UserTimeRow{{"Minutes"}, "2024-03-04T08:09", At(2024, 3, 4, 8, 9)},
        UserTimeRow{{"Blank"}, "2024-03-04 08:09:10", At(2024, 3, 4, 8, 9, 10)},
        UserTimeRow{{"Fraction"}, "2024-03-04T08:09:10.5", At(2024, 3, 4, 8, 9, 10, 500'000)},
        UserTimeRow{{"Microseconds"}, "2024-03-04T08:09:10.000007", At(2024, 3, 4, 8, 9, 10, 7)},
        UserTimeRow{{"Today"}, "08:09", At(2024, 3, 5, 8, 9)},
        UserTimeRow{{"TodayWithSeconds"}, "08:09:10", At(2024, 3, 5, 8, 9, 10)},
        UserTimeRow{{"SecondsAgo"}, "2s", At(2024, 3, 5, 9, 7, 0, 48213)},
        UserTimeRow{{"MinutesAgo"}, "10m", At(2024, 3, 5, 8, 57, 2, 48213)},
        UserTimeRow{{"HoursAgo"}, "10h", At(2024, 3, 4, 23, 7, 2, 48213)},
        UserTimeRow{{"DaysAgo"}, "5d", At(2024, 2, 29, 9, 7, 2, 48213)},
        UserTimeRow{{"WeeksAgo"}, "1w", At(2024, 2, 27, 9, 7, 2, 48213)}, UserTimeRow{{"Nothing"}, "", std::nullopt},
        UserTimeRow{{"NoUnit"}, "10", std::nullopt}, UserTimeRow{{"OtherUnit"}, "10y", std::nullopt},
        UserTimeRow{{"Negative"}, "-10m", std::nullopt}, UserTimeRow{{"TooMany"}, "99999999999m", std::nullopt},
        UserTimeRow{{"NoSuchMonth"}, "2024-13-04", std::nullopt}, UserTimeRow{{"NoSuchHour"}, "24:00", std::nullopt},
        UserTimeRow{{"Rest"}, "2024-03-04T08:09:10Z", std::nullopt},
        UserTimeRow{{"NoFraction"}, "08:09:10.", std::nullopt}, UserTimeRow{{"ShortDate"}, "2024-3-4", std::nullopt}),
    RowName);

}  // namespace
