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
#include <tuple>
#include <vector>

#include "foundation/millisecond_clock.h"
#include "support/fault_injection.h"

namespace traiklofox::test {
namespace {

using foundation::MillisecondClock;

constexpr ULONGLONG kHalf = 0x8000'0000;  // what one flip of the tick count's top bit adds

TEST(Ticks, CountMillisecondsSinceTheEpochModulo32Bits) {
    FakeTime time;
    for (const auto& [seconds, nanoseconds, ticks] : {std::tuple{0LL, 999'999, 0u},
                                                      {4'294'967, 295'000'000, 0xFFFF'FFFF},
                                                      {4'294'967, 296'000'000, 0},
                                                      {1'700'000'000, 123'456'789, 3'487'918'203}}) {
        time.stopAt(seconds, nanoseconds);
        EXPECT_EQ(GetTickCount(), ticks) << seconds << " s " << nanoseconds << " ns";
    }
}

TEST(MilliTime, AddsHalfARangeForEveryFlipOfTheTicksTopBit) {
    MillisecondClock clock;
    for (const auto& [tick, value] : {std::pair{0x7FFF'FFFFu, kHalf - 1},
                                      {0x8000'0000, kHalf},
                                      {0xFFFF'FFFF, 2 * kHalf - 1},
                                      {0x0000'0000, 2 * kHalf},
                                      {0xC000'0000, 3 * kHalf + 0x4000'0000},
                                      {0x7FFF'FFFF, 4 * kHalf + 0x7FFF'FFFF}})  // the clock was set back
        EXPECT_EQ(clock.read([now = tick] { return DWORD{now}; }), value) << tick;

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

// In every round the tick passes one flip while the threads read, so that they race to count it.
TEST(MilliTime, ThreadsCountEveryFlipOnce) {
    constexpr ULONGLONG kRounds = 2000;
    MillisecondClock clock;
    std::atomic<ULONGLONG> now{kHalf - 1};
    const auto tick = [&] { return static_cast<DWORD>(now.load()); };
    std::barrier roundEnd(4);
    std::vector<std::jthread> readers(3);
    for (std::jthread& reader : readers) {
        reader = std::jthread([&] {
            for (ULONGLONG round = 1; round <= kRounds; ++round) {
                ULONGLONG last = 0;
                for (int i = 0; i < 5; ++i) EXPECT_LE(std::exchange(last, clock.read(tick)), last);
                roundEnd.arrive_and_wait();
                EXPECT_EQ(clock.read(tick), now.load());
                roundEnd.arrive_and_wait();
            }
        });
    }
    for (ULONGLONG round = 1; round <= kRounds; ++round) {
        now = round * kHalf;
        roundEnd.arrive_and_wait();
        roundEnd.arrive_and_wait();
    }
}

TEST(FixTimeout, RoundsUpToMillisecondsAndDropsTimeoutsUnderASecond) {
    using Limits = std::numeric_limits<LONG>;
    constexpr time_t kLast = sizeof(time_t) == 4 ? 0x7FFF'FFFF : static_cast<time_t>(0x8000'0003LL);
    FakeTime time;
    // The present second and nanosecond, the milliseconds, and the deadline.
    for (const auto& [now, fraction, milliseconds, seconds, nanoseconds] :
         {std::tuple{time_t{1000}, 123'456'000, LONG{500}, time_t{1000}, 123'456'000},
          {1000, 123'456'000, 999, 1000, 123'456'000},
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

TEST(SleepEx, ZeroOnlyYields) {
    const CountCalls sleeps{faults::Call::Nanosleep};
    EXPECT_EQ(SleepEx(0, TRUE) + SleepEx(0, FALSE), 0u);
    EXPECT_EQ(sleeps.calls(), 0);
}

// Signals come faster than the sleep is long: one that began anew after each would never end.
TEST(SleepEx, SignalsNeitherShortenNorProlongAnOrdinarySleep) {
    static std::atomic<int> signals = 0;
    signal(SIGALRM, [](int) { ++signals; });
    const itimerval every5ms{{0, 5000}, {0, 5000}};
    const itimerval never{};
    const auto start = std::chrono::steady_clock::now();
    setitimer(ITIMER_REAL, &every5ms, nullptr);
    errno = EDOM;
    EXPECT_EQ(SleepEx(60, FALSE), 0u);
    EXPECT_EQ(errno, EDOM);
    setitimer(ITIMER_REAL, &never, nullptr);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds{60});
    EXPECT_GT(signals, 0);
}

}  // namespace
}  // namespace traiklofox::test
