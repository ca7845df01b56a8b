// Clocks, deadlines and sleeps, and the forms of time.

#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <traiklofox/clocks.h>
#include <traiklofox/time_conversion.h>

#include <atomic>
#include <barrier>
#include <chrono>
#include <limits>
#include <thread>
#include <tuple>
#include <vector>

#include "foundation/millisecond_clock.h"
#include "support/fault_injection.h"

namespace traiklofox::test {
namespace {

using foundation::MillisecondClock;
using Limits = std::numeric_limits<LONG>;

constexpr ULONGLONG kHalf = 0x8000'0000;          // what one flip of the tick count's top bit adds
constexpr ULONGLONG kEpoch = 116444736000000000;  // 1970-01-01 in 100-nanosecond intervals since 1601-01-01

TEST(Ticks, CountMillisecondsModulo32BitsAndAddHalfARangeForEveryFlipOfTheTopBit) {
    FakeTime time;
    for (const auto& [seconds, nanoseconds, ticks] : {std::tuple{0LL, 999'999, 0u},
                                                      {4'294'967, 296'000'000, 0},
                                                      {1'700'000'000, 123'456'789, 3'487'918'203},
                                                      {4'294'967, 295'000'000, 0xFFFF'FFFF}}) {
        time.stopAt(seconds, nanoseconds);
        EXPECT_EQ(GetTickCount(), ticks) << seconds << " s " << nanoseconds << " ns";
    }
    const ULONGLONG before = GetMilliTime();
    time.advance(0, 1'000'000);
    EXPECT_EQ(GetMilliTime(), before + 1);
    time.advance(2'147'483, 648'000'000);
    EXPECT_EQ(GetTickCount64(), before + 1 + kHalf);
    EXPECT_EQ(GetElapsedTime(before), 1 + kHalf);
    EXPECT_EQ(GetElapsedTime(0), GetMilliTime());

    MillisecondClock clock;
    for (const auto& [tick, value] : {std::pair{0x7FFF'FFFFu, kHalf - 1},
                                      {0x8000'0000, kHalf},
                                      {0xFFFF'FFFF, 2 * kHalf - 1},
                                      {0x0000'0000, 2 * kHalf},
                                      {0x7FFF'FFFF, 2 * kHalf + 0x7FFF'FFFF},
                                      {0xC000'0000, 3 * kHalf + 0x4000'0000},
                                      {0x7FFF'FFFF, 4 * kHalf + 0x7FFF'FFFF}})  // the clock was set back
        EXPECT_EQ(clock.read([now = tick] { return DWORD{now}; }), value) << tick;
}

// In every round the tick passes one flip while the threads read, so that they race to count it.
TEST(MilliTime, ThreadsCountEveryFlipOnce) {
    constexpr ULONGLONG kRounds = 2000;
    MillisecondClock clock;
    std::atomic<ULONGLONG> now{kHalf - 1};
    const auto tick = [&] { return static_cast<DWORD>(now.load()); };
    std::barrier roundEnd(3, [&]() noexcept { now += kHalf; });
    now = kHalf;
    std::vector<std::jthread> readers(3);
    for (std::jthread& reader : readers) {
        reader = std::jthread([&] {
            for (ULONGLONG round = 1; round <= kRounds; ++round) {
                ULONGLONG last = 0;
                for (int i = 0; i < 5; ++i) EXPECT_LE(std::exchange(last, clock.read(tick)), last);
                EXPECT_EQ(last, now.load());
                roundEnd.arrive_and_wait();
            }
        });
    }
}

TEST(FixTimeout, RoundsUpToMillisecondsAndDropsTimeoutsUnderASecond) {
    constexpr time_t kLast = sizeof(time_t) == 4 ? 0x7FFF'FFFF : static_cast<time_t>(0x8000'0003LL);
    FakeTime time;
    // The present second and nanosecond, the milliseconds, and the deadline.
    for (const auto& [now, fraction, milliseconds, seconds, nanoseconds] :
         {std::tuple{time_t{1000}, 123'456'000, LONG{999}, time_t{1000}, 123'456'000},
          {1000, 123'456'000, -1, 1000, 123'456'000},
          {1000, 123'456'000, Limits::min(), 1000, 123'456'000},
          {1000, 123'456'000, 1000, 1001, 123'456'000},
          {1000, 123'456'000, 1500, 1001, 624'000'000},
          {1000, 123'000'000, 1500, 1001, 623'000'000},
          {1000, 500'000'000, 1500, 1002, 0},
          {1000, 999'999'000, 1999, 1002, 999'000'000},
          {1000, 0, Limits::max(), 2'148'483, 647'000'000},
          {0x7FFF'FFFE, 0, 5000, kLast, 0}}) {  // a 32-bit clock stops at its last second
        time.stopAt(now, fraction);
        timespec deadline{-1, -1};
        FixTimeout(deadline, milliseconds);
        EXPECT_EQ(deadline.tv_sec, seconds) << fraction << " ns, " << milliseconds << " ms";
        EXPECT_EQ(deadline.tv_nsec, nanoseconds) << fraction << " ns, " << milliseconds << " ms";
    }
}

// Signals come faster than the sleep is long: one that began anew after each would never end.
TEST(SleepEx, SignalsNeitherShortenNorProlongAnOrdinarySleep) {
    const CountCalls sleeps{faults::Call::Nanosleep};
    EXPECT_EQ(SleepEx(0, TRUE) + SleepEx(0, FALSE), 0u);
    EXPECT_EQ(sleeps.calls(), 0);
    static std::atomic<int> signals = 0;
    signal(SIGALRM, [](int) { ++signals; });
    const itimerval every5ms{{0, 5000}, {0, 5000}}, never{};
    const auto start = std::chrono::steady_clock::now();
    setitimer(ITIMER_REAL, &every5ms, nullptr);
    errno = EDOM;
    EXPECT_EQ(SleepEx(60, FALSE), 0u);
    EXPECT_EQ(errno, EDOM);
    setitimer(ITIMER_REAL, &never, nullptr);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds{60});
    EXPECT_GT(signals, 0);
}

_FILETIME fileTime(ULONGLONG ticks) {
    return {static_cast<DWORD>(ticks), static_cast<DWORD>(ticks >> 32)};
}
ULONGLONG ticks(_FILETIME time) {
    return ULONGLONG{time.dwHighDateTime} << 32 | time.dwLowDateTime;
}
void setTimeZone(const char* zone) {
    setenv("TZ", zone, /*replace=*/1);
    tzset();
}
constexpr const char* kNewYork = "EST5EDT,M3.2.0,M11.1.0";

TEST(FileTime, ConvertsToAndFromUnixTimeAndComparesAsOneUnsignedNumber) {
    for (const auto& [unixSeconds, unixMicroseconds, expected] :
         {std::tuple{LONG{0}, 0u, kEpoch},
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
    for (const ULONGLONG left : {0ULL, 1ULL, 0x8000'0000ULL, 0x1'0000'0000ULL, 0x8000'0000'0000'0000ULL}) {
        for (const ULONGLONG right :
             {0ULL, 1ULL, 0x8000'0000ULL, 0x1'0000'0000ULL, 0x8000'0000'0000'0000ULL}) {
            const _FILETIME one = fileTime(left), other = fileTime(right);
            EXPECT_EQ(CompareFileTime(&one, &other), left < right ? -1 : left > right) << left << right;
        }
    }
}

// Whatever the zone and the season; a date that cannot be converted is 0.
TEST(SystemTime, IsTakenAsUtcAndReadInBothZones) {
    for (const char* zone : {"UTC0", "IST-5:30", kNewYork}) {
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
    const _SYSTEMTIME lastSecond{1969, 12, 0, 31, 18, 59, 59, 0};
    _FILETIME time = fileTime(1);
    EXPECT_EQ(SystemTimeToFileTime(&lastSecond, &time), 0);
    EXPECT_EQ(ticks(time), 0u);

    FakeTime now;
    now.stopAt(1'000'000'000, 250'000'000);
    const auto millis = static_cast<WORD>(GetMilliTime() % 1000);
    const _SYSTEMTIME utc{2001, 9, 0, 9, 1, 46, 40, millis}, newYork{2001, 9, 6, 8, 21, 46, 40, millis};
    _SYSTEMTIME date{};
    GetSystemTime(&date);
    EXPECT_EQ(memcmp(&date, &utc, sizeof date), 0);
    GetLocalTime(&date);
    EXPECT_EQ(memcmp(&date, &newYork, sizeof date), 0);
}

TEST(TimeZoneInformation, DescribesTheZoneAndTheSeason) {
    const std::string longName(200, 'X'), cut = longName.substr(0, 127);
    FakeTime time;
    for (const auto& [zone, now, bias, standard, daylight, season] :
         {std::tuple{std::string("UTC0"), 1'000'000'000, LONG{0}, std::string("UTC"), std::string("UTC"),
                     TIME_ZONE_ID_STANDARD},
          {kNewYork, 1'000'000'000, 300, "EST", "EDT", TIME_ZONE_ID_DAYLIGHT},
          {kNewYork, 980'000'000, 300, "EST", "EDT", TIME_ZONE_ID_STANDARD},
          {longName + "-5:30", 1'000'000'000, -330, cut, cut, TIME_ZONE_ID_STANDARD}}) {
        SCOPED_TRACE(zone);
        setTimeZone(zone.c_str());
        time.stopAt(now);
        _TIME_ZONE_INFORMATION information, expected{};
        memset(&information, 0xff, sizeof information);
        EXPECT_EQ(GetTimeZoneInformation(&information), season);
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
}  // namespace traiklofox::test
