#include <traiklofox/clocks.h>
#include <traiklofox/events.h>
#include <traiklofox/timers.h>

#include <errno.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <random>
#include <vector>

#include "kernel/call_queue.h"
#include "kernel/thread_life.h"
#include "kernel/worker.h"
#include "support/fault_injection.h"

namespace {

using namespace traiklofox::test;
using std::chrono::milliseconds;

constexpr long kMillisecond = 1'000'000;

OwnedHandle makeTimer(Kind kind = Kind::Auto) {
    return OwnedHandle{CreateWaitableTimer(nullptr, kind == Kind::Manual, "named")};
}

timespec wallClock() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return now;
}
bool isBefore(const timespec& left, const timespec& right) {
    return left.tv_sec != right.tv_sec ? left.tv_sec < right.tv_sec : left.tv_nsec < right.tv_nsec;
}
timespec in(long fromNow) {
    timespec due = wallClock();
    const long nanoseconds = due.tv_nsec + fromNow % 1000 * kMillisecond;
    due.tv_sec += fromNow / 1000 + nanoseconds / 1'000'000'000;
    due.tv_nsec = nanoseconds % 1'000'000'000;
    return due;
}

/// What the routines of one thread's timers leave behind.
struct Fired {
    int number = 0;
    timespec due{};
    pthread_t thread{};
    bool early = false;
};
thread_local std::vector<Fired> fired;

void record(void* number, void* seconds, void* nanoseconds) {
    const timespec due{static_cast<time_t>(reinterpret_cast<LONG_PTR>(seconds)),
                       static_cast<long>(reinterpret_cast<LONG_PTR>(nanoseconds))};
    fired.push_back({static_cast<int>(reinterpret_cast<LONG_PTR>(number)), due, pthread_self(),
                     isBefore(wallClock(), due)});
}
void* numbered(int number) {
    return reinterpret_cast<void*>(static_cast<LONG_PTR>(number));
}
BOOL set(const OwnedHandle& timer, timespec due, LONG period = 0, PTIMERAPCROUTINE routine = record,
         int number = 0) {
    return SetWaitableTimer(timer.get(), &due, period, routine, numbered(number), FALSE);
}
/// Sleeps alertably until so many routines have run on this thread.
bool awaitFired(size_t count) {
    const auto giveUp = now() + std::chrono::seconds{kBoundSeconds};
    while (fired.size() < count && now() < giveUp) SleepEx(100, TRUE);
    return fired.size() >= count;
}

class TimerTest : public testing::Test {
  protected:
    TimerTest() {
        (void)UserAPCCheck();  // what an earlier test of this process has left
        fired.clear();
    }
    OwnedHandle timer = makeTimer();
};

TEST_F(TimerTest, RunsItsRoutineOnTheSettingThreadWithTheDueTime) {
    const timespec due = in(30);
    for (const Kind kind : {Kind::Auto, Kind::Manual}) {
        const auto other = makeTimer(kind);
        fired.clear();
        EXPECT_EQ(set(other, due, 0, record, 7), 1);
        ASSERT_TRUE(awaitFired(1));
        EXPECT_EQ(fired[0].number, 7);
        EXPECT_EQ(fired[0].due.tv_sec, due.tv_sec);
        EXPECT_EQ(fired[0].due.tv_nsec, due.tv_nsec);
        EXPECT_EQ(fired[0].thread, pthread_self());
        EXPECT_FALSE(fired[0].early);
        EXPECT_EQ(SleepEx(20, TRUE), 0u) << "it fires once";
        EXPECT_EQ(CancelWaitableTimer(other.get()), 0) << "it has fired";
    }
}

TEST_F(TimerTest, RunsNothingBeforeTheThreadWaitsAlertably) {
    set(timer, in(-1000));
    EXPECT_TRUE(withinSeconds(kBoundSeconds, [&] {
        return traiklofox::kernel::ThreadLife::callsOf(static_cast<Thread&>(*GetCurrentThread())).size() == 1;
    }));
    EXPECT_EQ(SleepEx(1, FALSE), 0u);
    EXPECT_TRUE(fired.empty());
    EXPECT_EQ(SleepEx(kBound, TRUE), WAIT_IO_COMPLETION);
    EXPECT_EQ(fired.size(), 1u);
}

TEST_F(TimerTest, WithoutARoutineOnlyEndsTheWait) {
    set(timer, in(5), 0, nullptr);
    EXPECT_EQ(SleepEx(kBound, TRUE), WAIT_IO_COMPLETION);
}

TEST_F(TimerTest, IsNeverWaitedFor) {
    set(timer, in(3'600'000));
    EXPECT_EQ(WaitForSingleObject(timer.get(), INFINITE), WAIT_OBJECT_0);
    std::array<Handle*, 2> alike{timer.get(), timer.get()};
    EXPECT_EQ(WaitForMultipleObjects(2, alike.data(), TRUE, INFINITE), 0u);
    set(timer, in(1));
    const auto event = makeEvent(Kind::Auto);
    std::array<Handle*, 2> mixed{timer.get(), event.get()};
    EXPECT_EQ(WaitForMultipleObjects(2, mixed.data(), FALSE, 30), WAIT_TIMEOUT);
}

TEST_F(TimerTest, RefusesWhatIsNoDueTimeOrNoTimer) {
    const auto event = makeEvent(Kind::Auto);
    const timespec due = in(0);
    for (const long nanoseconds : {-1L, 1'000'000'000L}) {
        errno = 0;
        EXPECT_EQ(set(timer, {due.tv_sec, nanoseconds}), 0);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(SetWaitableTimer(timer.get(), nullptr, 0, record, nullptr, FALSE), 0);
    for (Handle* none : {static_cast<Handle*>(nullptr), INVALID_HANDLE_VALUE, event.get()}) {
        EXPECT_EQ(SetWaitableTimer(none, &due, 0, record, nullptr, FALSE), 0);
        EXPECT_EQ(CancelWaitableTimer(none), 0);
    }
    EXPECT_EQ(Timer::Cancel(nullptr), 0);
    EXPECT_EQ(SleepEx(5, TRUE), 0u);
}

TEST(TimerThread, IsTriedAgainWhenTheSystemHadNone) {
    fired.clear();
    OwnedHandle timer;
    {
        const FailCall full{faults::Call::PthreadCreate, EAGAIN, faults::Options{.andAllLater = true}};
        if (Timer::StartThread()) return;  // an earlier test of this process has started it
        timer = makeTimer();
        errno = 0;
        EXPECT_EQ(set(timer, in(0)), 0);
        EXPECT_EQ(errno, EAGAIN);
    }
    EXPECT_EQ(set(timer, in(0)), 1);
    EXPECT_TRUE(awaitFired(1));
}

TEST_F(TimerTest, SetAgainForgetsTheOldDueTime) {
    const struct { long first, second; } cases[] = {{20, 40}, {40, 20}, {3'600'000, 10}, {-1000, 10}};
    for (const auto& c : cases) {
        fired.clear();
        set(timer, in(3'600'000), 0, record, 0);
        set(timer, in(c.first), 0, record, 1);
        if (c.first < 0) {
            ASSERT_TRUE(awaitFired(1));
            fired.clear();
        }
        set(timer, in(c.second), 0, record, 2);
        ASSERT_TRUE(awaitFired(1));
        EXPECT_EQ(SleepEx(40, TRUE), 0u);
        EXPECT_EQ(fired[0].number, 2) << c.first << ", then " << c.second;
    }
}

TEST_F(TimerTest, BelongsToTheThreadThatSetItLast) {
    set(timer, in(3'600'000));
    std::thread([&] {
        fired.clear();
        set(timer, in(5));
        EXPECT_TRUE(awaitFired(1));
    }).join();
    EXPECT_EQ(SleepEx(5, TRUE), 0u);
}

TEST_F(TimerTest, CancelledInTimeNeverFires) {
    EXPECT_EQ(CancelWaitableTimer(timer.get()), 0) << "not set";
    const auto later = makeTimer();
    set(later, in(30), 0, record, 1);
    set(timer, in(20));
    EXPECT_EQ(CancelWaitableTimer(timer.get()), 1);
    EXPECT_EQ(CancelWaitableTimer(timer.get()), 0);
    ASSERT_TRUE(awaitFired(1));
    EXPECT_EQ(fired[0].number, 1);
    EXPECT_EQ(set(timer, in(0), 0, record, 2), 1) << "it can be set again";
    ASSERT_TRUE(awaitFired(2));
    EXPECT_EQ(fired.size(), 2u);
}

// The period counts from the expiry, on a wall clock that is wrong here by so much: the period passes in the rest.
TEST_F(TimerTest, PeriodicOneFiresAgainAfterEachPeriod) {
    const struct {
        LONG period;
        long clockMilliseconds;
        long gap;
    } cases[] = {{1500, -1400, 100}, {500, 0, 0}, {1, 0, 0}, {-1500, 0, 0}};
    for (const auto& c : cases) {
        FakeTime clock;
        fired.clear();
        const timespec first = in(10);
        clock.runAhead(0, c.clockMilliseconds * kMillisecond);
        const auto start = now();
        set(timer, first, c.period);
        ASSERT_TRUE(awaitFired(4)) << c.period;
        EXPECT_EQ(CancelWaitableTimer(timer.get()), 1);
        EXPECT_GE(now() - start, milliseconds{3 * c.gap}) << c.period;
        EXPECT_LT(now() - start, milliseconds{3 * c.gap} + kPrompt) << c.period;
        EXPECT_EQ(fired[0].due.tv_nsec, first.tv_nsec);
        for (size_t i = 1; i < 4; ++i) EXPECT_FALSE(isBefore(fired[i].due, fired[i - 1].due));
        while (SleepEx(1, TRUE) != 0) continue;  // what it has still queued
    }
}

TEST_F(TimerTest, PeriodicOneDoesNotFloodAThreadThatNeverWaits) {
    auto& calls = traiklofox::kernel::ThreadLife::callsOf(static_cast<Thread&>(*GetCurrentThread()));
    set(timer, in(0), 1);
    EXPECT_TRUE(withinSeconds(kBoundSeconds, [&] { return calls.size() == 10'000; }));
    const auto other = makeTimer();
    set(other, in(20));
    EXPECT_TRUE(withinSeconds(kBoundSeconds, [&] { return calls.size() == 10'001; }));
    EXPECT_EQ(CancelWaitableTimer(timer.get()), 1);
    while (SleepEx(1, TRUE) != 0) continue;
    EXPECT_EQ(fired.size(), 10'001u);
}

int ownRuns = 0;
void cancelItself(void* self, void*, void*) {
    if (++ownRuns < 3) return;
    EXPECT_EQ(CancelWaitableTimer(static_cast<Handle*>(self)), 1);
}
void setItselfAgain(void* self, void*, void*) {
    const timespec soon = in(5);
    if (++ownRuns < 3) SetWaitableTimer(static_cast<Handle*>(self), &soon, 0, setItselfAgain, self, FALSE);
}
void closeItself(void* self, void*, void*) {
    ++ownRuns;
    CloseHandle(static_cast<Handle*>(self));
}

TEST_F(TimerTest, RoutineMayCancelSetAndCloseItsOwnTimer) {
    constexpr LONG kPeriod = 1500;  // 20 ms by this clock
    FakeTime clock;
    clock.runAhead(0, -1480 * kMillisecond);
    const struct {
        const char* name;
        PTIMERAPCROUTINE routine;
        LONG period;
        int runs;
    } cases[] = {{"cancel", cancelItself, kPeriod, 3},
                 {"set", setItselfAgain, 0, 3},
                 {"close", closeItself, kPeriod, 1}};
    for (const auto& c : cases) {
        ownRuns = 0;
        OwnedHandle own = makeTimer();
        const timespec due = in(0);
        SetWaitableTimer(own.get(), &due, c.period, c.routine, own.get(), FALSE);
        if (c.routine == closeItself) (void)own.release();
        const auto giveUp = now() + std::chrono::seconds{kBoundSeconds};
        while (ownRuns < c.runs && now() < giveUp) SleepEx(10, TRUE);
        EXPECT_EQ(SleepEx(60, TRUE), 0u) << c.name;
        EXPECT_EQ(ownRuns, c.runs) << c.name;
    }
}

TEST_F(TimerTest, SurvivesTheThreadThatSetIt) {
    Handle* owner = nullptr;
    std::thread([&] {
        DuplicateHandle(nullptr, GetCurrentThread(), nullptr, &owner, 0, FALSE, 0);
        for (const LONG period : {0, 1}) set(timer, in(period), period);
    }).join();
    const OwnedHandle ended{owner};
    const auto other = makeTimer();
    set(other, in(30), 0, record, 2);
    ASSERT_TRUE(awaitFired(1));
    EXPECT_EQ(fired[0].number, 2);
    EXPECT_EQ(CancelWaitableTimer(timer.get()), 1) << "a periodic one goes on, for nobody";
    EXPECT_EQ(owner->GetRefCount(), 1);
}

TEST_F(TimerTest, ChildOfAForkHasNoneSetAndCanSetItsOwn) {
    set(timer, in(0));
    ASSERT_TRUE(
        awaitFired(1));  // the timers' thread runs: a sanitizer cannot have a fork while one is starting
    fired.clear();
    set(timer, in(3'600'000));
    auto soon = makeTimer();
    set(soon, in(20), 0, record, 1);
    const pid_t child = fork();
    if (child == 0) {
        if (CancelWaitableTimer(timer.get()) != 0 || SleepEx(40, TRUE) != 0) _exit(1);
#if !defined(__SANITIZE_THREAD__)  // which stops a forked process that makes a thread
        if (set(timer, in(5)) != 1 || !awaitFired(1) || fired[0].number != 0) _exit(2);
#endif
        CloseHandle(soon.release());
        _exit(0);
    }
    int status = -1;
    ASSERT_EQ(TEMP_FAILURE_RETRY(waitpid(child, &status, 0)), child);  // the timer's call interrupts it
    EXPECT_EQ(status, 0) << WEXITSTATUS(status);
    EXPECT_TRUE(awaitFired(1));
    EXPECT_EQ(CancelWaitableTimer(timer.get()), 1);
}

// Whole seconds decide, then the order of setting: within one second a timer does not fire before those set earlier.
TEST(TimerStress, AThousandFireOnceEachInOrderOnTheirThreads) {
    constexpr int kThreads = 4;
    constexpr int kEach = 250;
    std::vector<std::unique_ptr<Worker>> workers;
    for (int number = 0; number < kThreads; ++number) {
        workers.push_back(std::make_unique<Worker>([number] {
            fired.clear();
            std::minstd_rand random(static_cast<unsigned>(number + 1));
            std::vector<OwnedHandle> timers;
            std::vector<timespec> due;
            for (int i = 0; i < kEach; ++i) {
                timers.push_back(makeTimer());
                due.push_back(in(static_cast<long>(random() % 2500)));
                ASSERT_EQ(set(timers.back(), due.back(), 0, record, i), 1);
            }
            EXPECT_TRUE(awaitFired(kEach));
            EXPECT_EQ(SleepEx(20, TRUE), 0u);
            ASSERT_EQ(fired.size(), static_cast<size_t>(kEach));
            std::vector<bool> seen(kEach);
            for (const Fired& one : fired) {
                EXPECT_FALSE(one.early) << one.number;
                EXPECT_EQ(one.thread, pthread_self());
                EXPECT_FALSE(seen[static_cast<size_t>(one.number)]) << one.number;
                seen[static_cast<size_t>(one.number)] = true;
            }
            const auto inOrder = [](const Fired& left, const Fired& right) {
                return left.due.tv_sec != right.due.tv_sec ? left.due.tv_sec < right.due.tv_sec
                                                           : left.number < right.number;
            };
            EXPECT_TRUE(std::is_sorted(fired.begin(), fired.end(), inOrder));
        }));
    }
}

// Timers that are about to fire are set again, cancelled and closed by other threads than their owner.
TEST(TimerStress, NoMixtureOfUsesLosesOrRepeatsAnything) {
    constexpr int kTimers = 6;
    constexpr int kThreads = 4;
    const int each = rounds(4'000);
    std::vector<OwnedHandle> timers;
    for (int i = 0; i < kTimers; ++i) timers.push_back(makeTimer());
    const auto nothing = [](void*, void*, void*) {};
    std::vector<std::unique_ptr<Worker>> workers;
    for (int number = 0; number < kThreads; ++number) {
        workers.push_back(std::make_unique<Worker>([&, number] {
            std::minstd_rand random(static_cast<unsigned>(number + 1));
            for (int i = 0; i < each; ++i) {
                const auto& timer = timers[random() % kTimers];
                switch (random() % 4) {
                    case 0: set(timer, in(static_cast<long>(random() % 2)), 0, nothing); break;
                    case 1: (void)CancelWaitableTimer(timer.get()); break;
                    case 2: {
                        const auto shortLived = makeTimer();
                        set(shortLived, in(static_cast<long>(random() % 2)), 1500, nothing);
                        if (i % 8 == 0) SleepEx(1, TRUE);
                        break;
                    }
                    default: (void)UserAPCCheck();
                }
            }
        }));
    }
    workers.clear();
    fired.clear();
    for (const auto& timer : timers) set(timer, in(1));
    EXPECT_TRUE(awaitFired(kTimers));
    EXPECT_EQ(fired.size(), static_cast<size_t>(kTimers));
}

}  // namespace
