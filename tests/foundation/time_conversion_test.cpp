#include <traiklofox/clocks.h>
#include <traiklofox/time_conversion.h>

#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <limits>
#include <string>
#include <tuple>

#include "support/fault_injection.h"

using traiklofox::test::FakeTime;

namespace {

constexpr ULONGLONG kEpoch = 116444736000000000;  // 1970-01-01 in 100-nanosecond intervals since 1601-01-01

_FILETIME fileTime(ULONGLONG ticks) {
    return {static_cast<DWORD>(ticks), static_cast<DWORD>(ticks >> 32)};
}
ULONGLONG ticks(_FILETIME time) {
    return ULONGLONG{time.dwHighDateTime} << 32 | time.dwLowDateTime;
}

/// The process's time zone from now on.
void setTimeZone(const char* zone) {
    setenv("TZ", zone, /*replace=*/1);
    tzset();
}

constexpr const char* kNewYork = "EST5EDT,M3.2.0,M11.1.0";

TEST(FileTime, ConvertsToAndFromUnixTime) {
    using Limits = std::numeric_limits<LONG>;
    for (const auto& [unixSeconds, unixMicroseconds, expected] :
         {std::tuple{LONG{0}, 0u, kEpoch},
          {0, 1, kEpoch + 10},
          {-1, 999'999, kEpoch - 10},
          {1'000'000'000, 0, 126'444'736'000'000'000},
          {Limits::max(), 999'999, 137'919'572'479'999'990},
          {Limits::min(), 0, 94'969'899'520'000'000}}) {
        _FILETIME time{};
        time_tToFileTime(unixSeconds, &time, unixMicroseconds);
        EXPECT_EQ(ticks(time), expected);
        LONG seconds = 0;
        ULONG microseconds = 0;
        FileTime2time_t(time, &seconds, &microseconds);
        EXPECT_EQ(seconds, unixSeconds);
        EXPECT_EQ(microseconds, unixMicroseconds);
        EXPECT_EQ(FileTime2longlong(time), unixSeconds);
    }
    EXPECT_EQ(FileTime2longlong(fileTime(0)), -11644473600);
    EXPECT_EQ(FileTime2longlong(fileTime(~0ULL)), 1833029933770);
    LONG truncated = 0;
    FileTime2time_t(fileTime(kEpoch + 0x1'0000'0005ULL * 10'000'000), &truncated, nullptr);
    EXPECT_EQ(truncated, 5);
}

TEST(FileTime, ComparesAsOneUnsignedNumber) {
    const ULONGLONG ascending[] = {0, 1, 0x8000'0000, 0x1'0000'0000, 0x8000'0000'0000'0000};
    for (const ULONGLONG left : ascending) {
        for (const ULONGLONG right : ascending) {
            const _FILETIME leftTime = fileTime(left);
            const _FILETIME rightTime = fileTime(right);
            EXPECT_EQ(CompareFileTime(&leftTime, &rightTime), left < right ? -1 : left > right)
                << left << right;
        }
    }
}

// Whatever the zone and the season; a date that cannot be converted is 0.
TEST(SystemTime, IsTakenAsUtc) {
    for (const char* zone : {"UTC0", kNewYork, "IST-5:30"}) {
        setTimeZone(zone);
        for (const auto& [date, expected] :
             {std::pair{_SYSTEMTIME{1970, 1, 0, 1, 0, 0, 0, 0}, kEpoch},
              {{2001, 9, 0, 9, 1, 46, 40, 250}, 126'444'736'002'500'000},  // daylight time in New York
              {{2001, 12, 0, 31, 23, 59, 59, 999}, 126'543'167'999'990'000},
              {{2000, 2, 0, 30, 0, 0, 0, 0}, 125'963'424'000'000'000},  // March 1
              {{}, 0},
              {{1600, 12, 0, 30, 0, 0, 0, 0}, 0},
              {{65535, 65535, 0, 65535, 65535, 65535, 65535, 65535}, 0}}) {
            _FILETIME time = fileTime(1);
            ULONGLONG number = 1;
            EXPECT_EQ(SystemTimeToFileTime(&date, &time), expected != 0) << zone << ' ' << date.wYear;
            EXPECT_EQ(ticks(time), expected) << zone << ' ' << date.wYear;
            EXPECT_EQ(SystemTimeToLongLong(&date, &number), 1);
            EXPECT_EQ(number, expected) << zone << ' ' << date.wYear;
        }
    }
    // Where local clocks show a second before the epoch, mktime's answer is that of a failure.
    setTimeZone(kNewYork);
    const _SYSTEMTIME date{1969, 12, 0, 31, 18, 59, 59, 0};
    _FILETIME time = fileTime(1);
    EXPECT_EQ(SystemTimeToFileTime(&date, &time), 0);
    EXPECT_EQ(ticks(time), 0u);
}

TEST(SystemTime, TheClockIsReadInBothZones) {
    setTimeZone(kNewYork);
    FakeTime time;
    time.stopAt(1'000'000'000, 250'000'000);
    const auto millis = static_cast<WORD>(GetMilliTime() % 1000);
    const _SYSTEMTIME utc{2001, 9, 0, 9, 1, 46, 40, millis};
    const _SYSTEMTIME newYork{2001, 9, 6, 8, 21, 46, 40, millis};
    _SYSTEMTIME date{};
    GetSystemTime(&date);
    EXPECT_EQ(memcmp(&date, &utc, sizeof date), 0);
    GetLocalTime(&date);
    EXPECT_EQ(memcmp(&date, &newYork, sizeof date), 0);
}

TEST(TimeZoneInformation, DescribesTheZoneAndTheSeason) {
    const std::string longName(200, 'X');
    const std::string cut = longName.substr(0, 127);
    FakeTime time;
    for (const auto& [zone, now, bias, standard, daylight, season] :
         {std::tuple{std::string("UTC0"), 1'000'000'000, LONG{0}, std::string("UTC"), std::string("UTC"),
                     TIME_ZONE_ID_STANDARD},
          {kNewYork, 1'000'000'000, 300, "EST", "EDT", TIME_ZONE_ID_DAYLIGHT},
          {kNewYork, 980'000'000, 300, "EST", "EDT", TIME_ZONE_ID_STANDARD},
          {"IST-5:30", 1'000'000'000, -330, "IST", "IST", TIME_ZONE_ID_STANDARD},
          {longName + "1", 1'000'000'000, 60, cut, cut, TIME_ZONE_ID_STANDARD}}) {
        SCOPED_TRACE(zone);
        setTimeZone(zone.c_str());
        time.stopAt(now);
        _TIME_ZONE_INFORMATION information;
        memset(&information, 0xff, sizeof information);
        EXPECT_EQ(GetTimeZoneInformation(&information), season);

        _TIME_ZONE_INFORMATION expected{};
        expected.Bias = bias;
        standard.copy(expected.StandardName, sizeof expected.StandardName);
        expected.StandardDate = {0, 10, 0, 5, 2, 0, 0, 0};
        daylight.copy(expected.DaylightName, sizeof expected.DaylightName);
        expected.DaylightDate = {0, 4, 0, 1, 2, 0, 0, 0};
        expected.DaylightBias = -60;
        EXPECT_STREQ(information.StandardName, expected.StandardName);
        EXPECT_EQ(memcmp(&information, &expected, sizeof information), 0);
    }
}

}  // namespace
