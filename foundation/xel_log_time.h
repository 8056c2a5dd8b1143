// The civil time of log lines, computed here because the C library's conversion may take a lock and
// memory.
#ifndef XEL_FOUNDATION_LOG_TIME_H
#define XEL_FOUNDATION_LOG_TIME_H

#include "common/xel_int.h"

struct UtcTime {
    u32 year;
    u32 month; // 1 to 12
    u32 day;   // 1 to 31
    u32 hour;
    u32 minute;
    u32 second;
};

constexpr bool IsLeapYear(u64 year)
{
    return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
}

// Leap days in the years 1 to year.
constexpr u64 LeapDaysThrough(u64 year)
{
    return year / 4 - year / 100 + year / 400;
}

// Days from 1970-01-01 to the first day of year.
constexpr u64 DaysBeforeYear(u64 year)
{
    return (year - 1970) * 365 + LeapDaysThrough(year - 1) - LeapDaysThrough(1969);
}

// Seconds since 1970-01-01T00:00:00Z, without leap seconds as the system counts them.
constexpr UtcTime UtcOf(u64 seconds)
{
    constexpr u64 kSecondsPerDay = 86400;
    const u64 days = seconds / kSecondsPerDay;
    const u64 rest = seconds % kSecondsPerDay;
    // Never above the true year, and below it by one year in some centuries.
    u64 year = 1970 + days / 366;
    while (DaysBeforeYear(year + 1) <= days) {
        year++;
    }
    const u64 monthLength[] = {
        31, IsLeapYear(year) ? u64{29} : u64{28}, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    u64 day = days - DaysBeforeYear(year);
    u32 month = 0;
    while (day >= monthLength[month]) {
        day -= monthLength[month];
        month++;
    }
    return UtcTime{static_cast<u32>(year),           month + 1,
                   static_cast<u32>(day + 1),        static_cast<u32>(rest / 3600),
                   static_cast<u32>(rest / 60 % 60), static_cast<u32>(rest % 60)};
}

#endif // XEL_FOUNDATION_LOG_TIME_H
