#include <traiklofox/clocks.h>
#include <traiklofox/time_conversion.h>

#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <limits>
#include <optional>
#include <string>

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

/// The process's time zone for the length of a test.
class TimeZone {
  public:
    explicit TimeZone(const char* zone) {
        if (const char* before = getenv("TZ")) before_ = before;
        setenv("TZ", zone, /*replace=*/1);
        tzset();
    }
    ~TimeZone() {
        before_ ? setenv("TZ", before_->c_str(), /*replace=*/1) : unsetenv("TZ");
        tzset();
    }
    TimeZone(const TimeZone&) = delete;
    TimeZone& operator=(const TimeZone&) = delete;

  private:
    std::optional<std::string> before_;
};

constexpr const char* kNewYork = "EST5EDT,M3.2.0,M11.1.0";
constexpr const char* kZones[] = {"UTC0", kNewYork, "IST-5:30"};

TEST(FileTime, ConvertsToAndFromUnixTime) {
    struct Case {
        LONG seconds;
        ULONG microseconds;
        ULONGLONG ticks;
    };
    for (const Case& each : {Case{0, 0, kEpoch}, Case{0, 1, kEpoch + 10}, Case{-1, 999'999, kEpoch - 10},
                             Case{1'000'000'000, 0, 126'444'736'000'000'000},
                             Case{std::numeric_limits<LONG>::max(), 999'999, 137'919'572'479'999'990},
                             Case{std::numeric_limits<LONG>::min(), 0, 94'969'899'520'000'000}}) {
        _FILETIME time{};
        time_tToFileTime(each.seconds, &time, each.microseconds);
        EXPECT_EQ(ticks(time), each.ticks);

        LONG seconds = 0;
        ULONG microseconds = 0;
        FileTime2time_t(time, &seconds, &microseconds);
        EXPECT_EQ(seconds, each.seconds);
        EXPECT_EQ(microseconds, each.microseconds);
        EXPECT_EQ(FileTime2longlong(time), each.seconds);
    }
}

TEST(FileTime, BeyondUnixTimeOf32BitsIsTruncated) {
    EXPECT_EQ(FileTime2longlong(fileTime(0)), -11644473600);
    EXPECT_EQ(FileTime2longlong(fileTime(~0ULL)), 1833029933770);
    LONG seconds = 0;
    FileTime2time_t(fileTime(kEpoch + 0x1'0000'0005ULL * 10'000'000), &seconds, nullptr);
    EXPECT_EQ(seconds, 5);
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

TEST(SystemTime, IsTakenAsUtcInEveryZoneAndSeason) {
    struct Case {
        _SYSTEMTIME date;
        ULONGLONG ticks;
    };
    for (const char* zone : kZones) {
        const TimeZone local(zone);
        for (const auto& [date, expected] : {
                 Case{{1970, 1, 0, 1, 0, 0, 0, 0}, kEpoch},
                 Case{{2001, 9, 0, 9, 1, 46, 40, 250}, 126'444'736'002'500'000},  // daylight time in New York
                 Case{{2001, 12, 0, 31, 23, 59, 59, 999}, 126'543'167'999'990'000},
                 Case{{2000, 2, 0, 30, 0, 0, 0, 0}, 125'963'424'000'000'000},  // March 1
             }) {
            _FILETIME time{};
            ULONGLONG number = 0;
            EXPECT_EQ(SystemTimeToFileTime(&date, &time), 1) << zone;
            EXPECT_EQ(ticks(time), expected) << zone << ' ' << date.wYear;
            EXPECT_EQ(SystemTimeToLongLong(&date, &number), 1);
            EXPECT_EQ(number, expected) << zone << ' ' << date.wYear;
        }
    }
}

TEST(SystemTime, LocalClocksASecondBeforeTheEpochCannotBeConverted) {
    const TimeZone local(kNewYork);
    const _SYSTEMTIME date{1969, 12, 0, 31, 18, 59, 59, 0};
    _FILETIME time = fileTime(1);
    EXPECT_EQ(SystemTimeToFileTime(&date, &time), 0);
    EXPECT_EQ(ticks(time), 0u);
}

TEST(SystemTime, DateThatCannotBeConvertedGivesZero) {
    for (const char* zone : kZones) {
        const TimeZone local(zone);
        for (const _SYSTEMTIME& date : {_SYSTEMTIME{}, _SYSTEMTIME{1600, 12, 0, 30, 0, 0, 0, 0},
                                        _SYSTEMTIME{65535, 65535, 0, 65535, 65535, 65535, 65535, 65535}}) {
            _FILETIME time = fileTime(1);
            ULONGLONG number = 1;
            EXPECT_EQ(SystemTimeToFileTime(&date, &time), 0) << zone << ' ' << date.wYear;
            EXPECT_EQ(ticks(time), 0u);
            EXPECT_EQ(SystemTimeToLongLong(&date, &number), 1);
            EXPECT_EQ(number, 0u);
        }
    }
}

TEST(SystemTime, TheClockIsReadInBothZones) {
    const TimeZone local(kNewYork);
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
    struct Case {
        std::string zone;
        long long now;
        LONG bias;
        std::string standard, daylight;
        DWORD season;
    };
    for (const Case& each : {Case{"UTC0", 1'000'000'000, 0, "UTC", "UTC", TIME_ZONE_ID_STANDARD},
                             Case{kNewYork, 1'000'000'000, 300, "EST", "EDT", TIME_ZONE_ID_DAYLIGHT},
                             Case{kNewYork, 980'000'000, 300, "EST", "EDT", TIME_ZONE_ID_STANDARD},
                             Case{"IST-5:30", 1'000'000'000, -330, "IST", "IST", TIME_ZONE_ID_STANDARD},
                             Case{longName + "1", 1'000'000'000, 60, longName.substr(0, 127),
                                  longName.substr(0, 127), TIME_ZONE_ID_STANDARD}}) {
        SCOPED_TRACE(each.zone);
        const TimeZone local(each.zone.c_str());
        FakeTime time;
        time.stopAt(each.now);
        _TIME_ZONE_INFORMATION zone;
        memset(&zone, 0xff, sizeof zone);
        EXPECT_EQ(GetTimeZoneInformation(&zone), each.season);

        _TIME_ZONE_INFORMATION expected{};
        expected.Bias = each.bias;
        each.standard.copy(expected.StandardName, sizeof expected.StandardName);
        expected.StandardDate = {0, 10, 0, 5, 2, 0, 0, 0};
        each.daylight.copy(expected.DaylightName, sizeof expected.DaylightName);
        expected.DaylightDate = {0, 4, 0, 1, 2, 0, 0, 0};
        expected.DaylightBias = -60;
        EXPECT_STREQ(zone.StandardName, expected.StandardName);
        EXPECT_EQ(memcmp(&zone, &expected, sizeof zone), 0);
    }
}

}  // namespace
