#include <traiklofox/clocks.h>

#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/time.h>

#include <atomic>
#include <barrier>
#include <chrono>
#include <limits>
#include <thread>
#include <vector>

#include "foundation/millisecond_clock.h"
#include "support/fault_injection.h"

using traiklofox::foundation::MillisecondClock;
using namespace traiklofox::test;

namespace {

constexpr ULONGLONG kHalf = 0x8000'0000;  // what one flip of the tick count's top bit adds

TEST(Ticks, CountMillisecondsSinceTheEpochModulo32Bits) {
    struct Case {
        long long seconds;
        long nanoseconds;
        DWORD ticks;
    };
    for (const auto& [seconds, nanoseconds, ticks] :
         {Case{0, 999'999, 0}, Case{4'294'967, 295'000'000, 0xFFFF'FFFF}, Case{4'294'967, 296'000'000, 0},
          Case{1'700'000'000, 123'456'789, 3'487'918'203}}) {
        FakeTime time;
        time.stopAt(seconds, nanoseconds);
        EXPECT_EQ(GetTickCount(), ticks) << seconds << " s " << nanoseconds << " ns";
    }
}

TEST(MillisecondClock, AddsHalfARangeForEveryFlipOfTheTopBit) {
    struct Reading {
        DWORD tick;
        ULONGLONG value;
    };
    MillisecondClock clock;
    for (const auto& [tick, value] : {
             Reading{0x7FFF'FFFF, 0x7FFF'FFFF}, Reading{0x8000'0000, kHalf},
             Reading{0xFFFF'FFFF, 2 * kHalf - 1}, Reading{0x0000'0000, 2 * kHalf},
             Reading{0xC000'0000, 3 * kHalf + 0x4000'0000},
             Reading{0x7FFF'FFFF, 4 * kHalf + 0x7FFF'FFFF},  // the clock was set back
         })
        EXPECT_EQ(clock.read([now = tick] { return now; }), value) << tick;
}

// In every round the tick passes one flip while the threads read, so that they race to count it.
TEST(MillisecondClock, ThreadsCountEveryFlipOnce) {
    constexpr int kReaders = 3;
    constexpr ULONGLONG kRounds = 2000;
    MillisecondClock clock;
    std::atomic<ULONGLONG> now{kHalf - 1};
    const auto tick = [&] { return static_cast<DWORD>(now.load()); };
    std::barrier roundEnd(kReaders + 1);
    const auto readThrough = [&] {
        for (ULONGLONG round = 1; round <= kRounds; ++round) {
            ULONGLONG last = 0;
            for (int i = 0; i < 5; ++i) {
                const ULONGLONG value = clock.read(tick);
                EXPECT_GE(value, last);
                last = value;
            }
            roundEnd.arrive_and_wait();
            EXPECT_EQ(clock.read(tick), now.load());
            roundEnd.arrive_and_wait();
        }
    };
    std::vector<std::thread> readers;
    for (int i = 0; i < kReaders; ++i) readers.emplace_back(readThrough);
    for (ULONGLONG round = 1; round <= kRounds; ++round) {
        now = round * kHalf;
        roundEnd.arrive_and_wait();
        roundEnd.arrive_and_wait();
    }
    for (std::thread& reader : readers) reader.join();
}

TEST(MilliTime, GrowsAcrossTheWrapOfTheTickCount) {
    FakeTime time;
    time.stopAt(4'294'967, 295'000'000);
    const ULONGLONG before = GetMilliTime();
    time.advance(0, 1'000'000);
    EXPECT_EQ(GetMilliTime(), before + 1);
    time.advance(2'147'483, 648'000'000);
    EXPECT_EQ(GetTickCount64(), before + 1 + kHalf);
    EXPECT_EQ(GetElapsedTime(before), 1 + kHalf);
    EXPECT_EQ(GetElapsedTime(0), GetMilliTime());
}

TEST(FixTimeout, RoundsUpToMillisecondsAndDropsTimeoutsUnderASecond) {
    struct Case {
        long nowNanoseconds;
        LONG milliseconds;
        long seconds, nanoseconds;  // after the present second
    };
    for (const auto& [now, milliseconds, seconds, nanoseconds] :
         {Case{123'456'000, 500, 0, 123'456'000}, Case{123'456'000, 999, 0, 123'456'000},
          Case{123'456'000, -1, 0, 123'456'000},
          Case{123'456'000, std::numeric_limits<LONG>::min(), 0, 123'456'000},
          Case{123'456'000, 1000, 1, 123'456'000}, Case{123'456'000, 1500, 1, 624'000'000},
          Case{123'000'000, 1500, 1, 623'000'000}, Case{500'000'000, 1500, 2, 0},
          Case{999'999'000, 1999, 2, 999'000'000},
          Case{0, std::numeric_limits<LONG>::max(), 2'147'483, 647'000'000}}) {
        FakeTime time;
        time.stopAt(1000, now);
        timespec deadline{-1, -1};
        FixTimeout(deadline, milliseconds);
        EXPECT_EQ(deadline.tv_sec, 1000 + seconds) << now << " ns, " << milliseconds << " ms";
        EXPECT_EQ(deadline.tv_nsec, nanoseconds) << now << " ns, " << milliseconds << " ms";
    }
}

TEST(FixTimeout, StopsAtTheLastSecondOfA32BitClock) {
    FakeTime time;
    time.stopAt(0x7FFF'FFFE);
    timespec deadline{};
    FixTimeout(deadline, 5000);
    EXPECT_EQ(deadline.tv_sec, static_cast<time_t>(sizeof(time_t) == 4 ? 0x7FFF'FFFF : 0x8000'0003LL));
}

TEST(SleepEx, ZeroOnlyYields) {
    const CountCalls sleeps{faults::Call::Nanosleep};
    EXPECT_EQ(SleepEx(0, TRUE), 0u);
    EXPECT_EQ(SleepEx(0, FALSE), 0u);
    EXPECT_EQ(sleeps.calls(), 0);
}

// Signals come faster than the sleep is long: one that began anew after each would never end.
TEST(SleepEx, SignalsNeitherShortenNorProlongAnOrdinarySleep) {
    static std::atomic<int> signals;
    signals = 0;
    struct sigaction action = {};
    struct sigaction before = {};
    action.sa_handler = [](int) { ++signals; };
    sigaction(SIGALRM, &action, &before);
    const itimerval every5ms{{0, 5000}, {0, 5000}};
    const itimerval never{};
    const auto start = std::chrono::steady_clock::now();
    setitimer(ITIMER_REAL, &every5ms, nullptr);
    errno = EDOM;
    EXPECT_EQ(SleepEx(60, FALSE), 0u);
    EXPECT_EQ(errno, EDOM);
    setitimer(ITIMER_REAL, &never, nullptr);
    sigaction(SIGALRM, &before, nullptr);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds{60});
    EXPECT_GT(signals, 0);
}

}  // namespace
