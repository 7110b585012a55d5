#include "CivilTime.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

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
        ASSERT_EQ(vexlog::Weekday(time), fields.tm_wday);
    }
}

TEST(CivilTimeTest, TheMicrosecondsOfTimesBefore1970ArePositive) {
    EXPECT_EQ(vexlog::MicrosecondOf(At(1969, 12, 31, 23, 59, 59, 7)), 7);
    EXPECT_EQ(vexlog::FormatCivil(At(1969, 12, 31, 23, 59, 59, 7), ' '), "1969-12-31 23:59:59.000007");
}

TEST(CivilTimeTest, KnowsTheDaysOfEveryMonth) {
    EXPECT_EQ(vexlog::DaysInMonth(2023, 2), 28);
    EXPECT_EQ(vexlog::DaysInMonth(2024, 2), 29);
    EXPECT_EQ(vexlog::DaysInMonth(1900, 2), 28);
    EXPECT_EQ(vexlog::DaysInMonth(2000, 2), 29);
    for (int nMonth = 1; nMonth <= 12; ++nMonth) {
        const int cDays = vexlog::DaysInMonth(2023, nMonth);
        EXPECT_TRUE(vexlog::ToCivil({2023, nMonth, cDays}).has_value()) << nMonth;
        EXPECT_FALSE(vexlog::ToCivil({2023, nMonth, cDays + 1}).has_value()) << nMonth;
        EXPECT_FALSE(vexlog::ToCivil({2023, nMonth, 0}).has_value()) << nMonth;
        const CivilMicroseconds next = nMonth == 12 ? At(2024, 1, 1) : At(2023, nMonth + 1, 1);
        EXPECT_EQ(next - At(2023, nMonth, 1), cDays * 86'400LL * 1'000'000) << nMonth;
    }
}

}  // namespace
