#include "CivilTime.h"

#include <sys/time.h>

#include <array>
#include <cstdio>
#include <ctime>

namespace vexlog {
namespace {

constexpr std::int64_t kSecondsPerDay = 86'400;
constexpr CivilMicroseconds kMicrosecondsPerDay = kSecondsPerDay * kMicrosecondsPerSecond;

// The proleptic Gregorian calendar, counted in eras of 400 years that begin on 1 March.
std::int64_t DaysFromCivil(int nYear, int nMonth, int nDay) {
    const std::int64_t nFromMarch = nMonth <= 2 ? nYear - 1 : nYear;
    const std::int64_t nEra = (nFromMarch >= 0 ? nFromMarch : nFromMarch - 399) / 400;
    const std::int64_t nYearOfEra = nFromMarch - nEra * 400;
    const std::int64_t nDayOfYear = (153 * (nMonth + (nMonth > 2 ? -3 : 9)) + 2) / 5 + nDay - 1;
    return nEra * 146'097 + nYearOfEra * 365 + nYearOfEra / 4 - nYearOfEra / 100 + nDayOfYear - 719'468;
}

// The days since 1970-01-01, rounded down.
std::int64_t DaysOf(CivilMicroseconds time) {
    return time / kMicrosecondsPerDay - (time % kMicrosecondsPerDay < 0 ? 1 : 0);
}

void CivilFromDays(std::int64_t nDays, CivilFields& fields) {
    nDays += 719'468;
    const std::int64_t nEra = (nDays >= 0 ? nDays : nDays - 146'096) / 146'097;
    const std::int64_t nDayOfEra = nDays - nEra * 146'097;
    const std::int64_t nYearOfEra = (nDayOfEra - nDayOfEra / 1460 + nDayOfEra / 36'524 - nDayOfEra / 146'096) / 365;
    const std::int64_t nDayOfYear = nDayOfEra - (365 * nYearOfEra + nYearOfEra / 4 - nYearOfEra / 100);
    const std::int64_t nMonth = (5 * nDayOfYear + 2) / 153;
    fields.nDay = static_cast<int>(nDayOfYear - (153 * nMonth + 2) / 5 + 1);
    fields.nMonth = static_cast<int>(nMonth < 10 ? nMonth + 3 : nMonth - 9);
    fields.nYear = static_cast<int>(nYearOfEra + nEra * 400 + (fields.nMonth <= 2 ? 1 : 0));
}

}  // namespace

int DaysInMonth(int nYear, int nMonth) {
    constexpr std::array<int, 12> kDays = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    const bool bLeap = nYear % 4 == 0 && (nYear % 100 != 0 || nYear % 400 == 0);
    return nMonth == 2 && bLeap ? 29 : kDays[static_cast<std::size_t>(nMonth - 1)];
}

int Weekday(CivilMicroseconds time) {
    constexpr std::int64_t kThursday = 4;  // 1970-01-01
    const auto nDay = static_cast<int>((DaysOf(time) + kThursday) % 7);
    return nDay < 0 ? nDay + 7 : nDay;
}

std::optional<CivilMicroseconds> ToCivil(const CivilFields& fields) {
    const auto isIn = [](int n, int nLeast, int nMost) { return n >= nLeast && n <= nMost; };
    if (!isIn(fields.nMonth, 1, 12) || !isIn(fields.nDay, 1, DaysInMonth(fields.nYear, fields.nMonth)) ||
        !isIn(fields.nHour, 0, 23) || !isIn(fields.nMinute, 0, 59) || !isIn(fields.nSecond, 0, 60) ||
        !isIn(fields.nMicrosecond, 0, 999'999)) {
        return std::nullopt;
    }
    return DaysFromCivil(fields.nYear, fields.nMonth, fields.nDay) * kMicrosecondsPerDay +
           (fields.nHour * 3600 + fields.nMinute * 60 + fields.nSecond) * kMicrosecondsPerSecond + fields.nMicrosecond;
}

CivilFields FromCivil(CivilMicroseconds time) {
    const std::int64_t nDays = DaysOf(time);
    const std::int64_t nRest = time - nDays * kMicrosecondsPerDay;
    CivilFields fields;
    CivilFromDays(nDays, fields);
    const auto nSeconds = static_cast<int>(nRest / kMicrosecondsPerSecond);
    fields.nHour = nSeconds / 3600;
    fields.nMinute = nSeconds / 60 % 60;
    fields.nSecond = nSeconds % 60;
    fields.nMicrosecond = static_cast<int>(nRest % kMicrosecondsPerSecond);
    return fields;
}

std::string FormatCivil(CivilMicroseconds time, char chBetween) {
    const CivilFields fields = FromCivil(time);
    char szText[64] = {};
    static_cast<void>(std::snprintf(szText, sizeof szText, "%04d-%02d-%02d%c%02d:%02d:%02d.%06d", fields.nYear,
                                    fields.nMonth, fields.nDay, chBetween, fields.nHour, fields.nMinute, fields.nSecond,
                                    fields.nMicrosecond));
    return szText;
}

std::string FormatCivilSeconds(CivilMicroseconds time, char chBetween) {
    const std::string strText = FormatCivil(time, chBetween);
    return strText.substr(0, strText.rfind('.'));
}

std::optional<CivilMicroseconds> CivilOfSystem(SystemMicroseconds time) {
    const int nMicrosecond = MicrosecondOf(time);
    const std::time_t nSeconds = (time - nMicrosecond) / kMicrosecondsPerSecond;
    std::tm local = {};
    if (localtime_r(&nSeconds, &local) == nullptr) {
        return std::nullopt;
    }
    return DaysFromCivil(local.tm_year + 1900, local.tm_mon + 1, local.tm_mday) * kMicrosecondsPerDay +
           (local.tm_hour * 3600 + local.tm_min * 60 + local.tm_sec) * kMicrosecondsPerSecond + nMicrosecond;
}

SystemMicroseconds SystemNow() {
    timeval time = {};
    gettimeofday(&time, nullptr);
    return time.tv_sec * kMicrosecondsPerSecond + time.tv_usec;
}

}  // namespace vexlog
