#include <sys/wait.h>
#include <traiklofox/clocks.h>

#include <algorithm>
#include <cerrno>

#include "kernel/call_queue.h"
#include "kernel/thread_life.h"
#include "kernel/worker.h"
#include "support/fault_injection.h"

namespace {

using namespace traiklofox::test;

constexpr long kMillisecond = 1'000'000;

bool isBefore(const timespec& left, const timespec& right) {
    return left.tv_sec != right.tv_sec ? left.tv_sec < right.tv_sec : left.tv_nsec < right.tv_nsec;
}
timespec in(long fromNow) {
    timespec due{};
    clock_gettime(CLOCK_REALTIME, &due);
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
    fired.push_back(
        {static_cast<int>(reinterpret_cast<LONG_PTR>(number)), due, pthread_self(), isBefore(in(0), due)});
}
BOOL set(const OwnedHandle& timer, timespec due, int number = 0, LONG period = 0,
         PTIMERAPCROUTINE routine = record) {
    void* const argument = reinterpret_cast<void*>(static_cast<LONG_PTR>(number));
    return SetWaitableTimer(timer.get(), &due, period, routine, argument, FALSE);
}
BOOL cancel(const OwnedHandle& timer) {
    return CancelWaitableTimer(timer.get());
}
/// The routine that runs next on this thread; at an alertable sleep.
bool firesNext(int number) {
    fired.clear();
    const auto giveUp = now() + std::chrono::seconds{kBoundSeconds};
    while (fired.empty() && now() < giveUp) SleepEx(100, TRUE);
    return fired.size() == 1 && fired[0].number == number && !fired[0].early;
}
/// Whether no routine runs on this thread meanwhile. A sleep alone would not tell: the signal for a call that
/// has run by now may come late and end it.
bool noneFiresFor(DWORD span) {
    const size_t before = fired.size();
    for (const auto end = now() + milliseconds{span}; now() < end;) SleepEx(span, TRUE);
    return fired.size() == before;
}
/// Does `step`, which counts on the first of its timers being due in `soonest`: anew, if it took that long.
template <class Step>
void beforeAnyIsDue(long soonest, Step step) {
    for (;;) {
        const timespec due = in(soonest);
        step();
        if (isBefore(in(0), due)) return;
        noneFiresFor(50);
    }
}
size_t callsQueued() {
    return traiklofox::kernel::ThreadLife::callsOf(static_cast<Thread&>(*GetCurrentThread())).size();
}

TEST(Timer, ThreadIsTriedAgainWhenTheSystemHadNone) {
    OwnedHandle timer;
    {
        const FailCall full{faults::Call::PthreadCreate, EAGAIN, faults::Options{.andAllLater = true}};
        if (Timer::StartThread()) return;  // an earlier test of this process has started it
        timer = makeTimer();
        errno = 0;
        EXPECT_EQ(set(timer, in(0)), 0);
        EXPECT_EQ(errno, EAGAIN);
    }
    EXPECT_EQ(set(timer, in(0), 1), 1);
    EXPECT_TRUE(firesNext(1));
}

TEST(Timer, RunsItsRoutineOnceOnTheSettingThreadWithTheDueTime) {
    for (const Kind kind : {Kind::Auto, Kind::Manual}) {
        const auto timer = makeTimer(kind);
        const timespec due = in(30);
        EXPECT_EQ(set(timer, due, 7), 1);
        ASSERT_TRUE(firesNext(7));
        EXPECT_TRUE(fired[0].due.tv_sec == due.tv_sec && fired[0].due.tv_nsec == due.tv_nsec);
        EXPECT_EQ(fired[0].thread, pthread_self());
        EXPECT_TRUE(noneFiresFor(20)) << "it fires once";
        EXPECT_EQ(cancel(timer), 0) << "it has fired";
        set(timer, in(-1000), 8);
        EXPECT_TRUE(soon([] { return callsQueued() == 1; }));
        EXPECT_EQ(SleepEx(1, FALSE), 0u);
        EXPECT_TRUE(firesNext(8)) << "where the thread waits alertably";
        set(timer, in(5), 0, 0, nullptr);
        EXPECT_EQ(SleepEx(kBound, TRUE), WAIT_IO_COMPLETION) << "without a routine it ends the wait";
    }
}

TEST(Timer, SetAgainOrCancelledForgetsTheOldDueTime) {
    const auto timer = makeTimer(), later = makeTimer();
    EXPECT_EQ(cancel(timer), 0) << "not set";
    for (const auto& [first, second] : {std::pair{20, 40}, {40, 20}, {3'600'000, 10}, {-1000, 10}}) {
        beforeAnyIsDue(first < 0 ? kBound : first, [&, first = first, second = second] {
            set(timer, in(3'600'000));
            set(timer, in(first), 1);
            EXPECT_TRUE(first >= 0 || firesNext(1));
            set(timer, in(second), 2);
        });
        ASSERT_TRUE(firesNext(2)) << first << ", then " << second;
        EXPECT_TRUE(noneFiresFor(40));
    }
    BOOL cancelled = -1;
    beforeAnyIsDue(20, [&] {
        set(later, in(30), 3);
        set(timer, in(20));
        cancelled = cancel(timer);
    });
    EXPECT_EQ(cancelled, 1);
    EXPECT_EQ(cancel(timer), 0);
    EXPECT_TRUE(firesNext(3));
    timespec due = in(0);
    for (const long nanoseconds : {-1L, 1'000'000'000L}) {
        errno = 0;
        EXPECT_EQ(set(timer, {due.tv_sec, nanoseconds}), 0);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(SetWaitableTimer(timer.get(), nullptr, 0, record, nullptr, FALSE), 0);
    set(timer, in(3'600'000));
    std::thread([&] {
        set(timer, in(5), 4);  // which makes it this thread's
        EXPECT_TRUE(firesNext(4));
    }).join();
    EXPECT_TRUE(noneFiresFor(5));
}

// The period counts from the expiry, on a wall clock that is wrong here by so much: the period passes in the rest.
TEST(Timer, PeriodicOneFiresAgainAfterEachPeriod) {
    const struct {
        LONG period;
        long clockMilliseconds, gap;
    } cases[] = {{1500, -1400, 100}, {500, 0, 0}, {1, 0, 0}, {-1500, 0, 0}};
    const auto timer = makeTimer();
    for (const auto& c : cases) {
        FakeTime clock;
        const timespec first = in(10);
        clock.runAhead(0, c.clockMilliseconds * kMillisecond);
        const auto start = now();
        fired.clear();
        set(timer, first, 0, c.period);
        while (fired.size() < 4 && now() - start < kPrompt) SleepEx(100, TRUE);
        EXPECT_EQ(cancel(timer), 1);
        EXPECT_GE(now() - start, milliseconds{3 * c.gap}) << c.period;
        ASSERT_GE(fired.size(), 4u) << c.period;
        EXPECT_EQ(fired[0].due.tv_nsec, first.tv_nsec);
        for (size_t i = 1; i < 4; ++i) EXPECT_FALSE(isBefore(fired[i].due, fired[i - 1].due));
        while (SleepEx(1, TRUE) != 0) continue;  // what it has still queued
    }
}

TEST(Timer, PeriodicOneDoesNotFloodAThreadThatNeverWaits) {
    const auto timer = makeTimer(), other = makeTimer();
    fired.clear();
    set(timer, in(0), 0, 1);
    EXPECT_TRUE(soon([] { return callsQueued() == 10'000; }));
    set(other, in(20));
    EXPECT_TRUE(soon([] { return callsQueued() == 10'001; }));
    EXPECT_EQ(cancel(timer), 1);
    while (SleepEx(1, TRUE) != 0) continue;
    EXPECT_EQ(fired.size(), 10'001u);
}

int ownRuns = 0;

TEST(Timer, RoutineMayCancelSetAndCloseItsOwnTimer) {
    constexpr LONG kPeriod = 1500;  // 20 ms by this clock
    FakeTime clock;
    clock.runAhead(0, -1480 * kMillisecond);
    static const PTIMERAPCROUTINE cancelItself = [](void* self, void*, void*) {
        EXPECT_TRUE(++ownRuns < 3 || CancelWaitableTimer(static_cast<Handle*>(self)));
    };
    static const PTIMERAPCROUTINE setItself = [](void* self, void*, void*) {
        const timespec due = in(5);
        if (++ownRuns < 3) SetWaitableTimer(static_cast<Handle*>(self), &due, 0, setItself, self, FALSE);
    };
    static const PTIMERAPCROUTINE closeItself = [](void* self, void*, void*) {
        ++ownRuns;
        CloseHandle(static_cast<Handle*>(self));
    };
    for (const auto& [routine, period, runs] :
         {std::tuple{cancelItself, kPeriod, 3}, {setItself, LONG{0}, 3}, {closeItself, kPeriod, 1}}) {
        ownRuns = 0;
        OwnedHandle own = makeTimer();
        const timespec due = in(0);
        SetWaitableTimer(own.get(), &due, period, routine, own.get(), FALSE);
        if (routine == closeItself) (void)own.release();
        const auto giveUp = now() + std::chrono::seconds{kBoundSeconds};
        while (ownRuns < runs && now() < giveUp) SleepEx(10, TRUE);
        EXPECT_TRUE(noneFiresFor(60)) << runs;
        EXPECT_EQ(ownRuns, runs);
    }
}

TEST(Timer, SurvivesTheThreadThatSetItAndThatThreadsEnd) {
    const auto timer = makeTimer(), other = makeTimer();
    Worker owner{[&] {
        for (const LONG period : {0, 1}) set(timer, in(period), 1, period);
    }};
    owner.join();
    set(other, in(30), 2);
    EXPECT_TRUE(firesNext(2));
    EXPECT_EQ(cancel(timer), 1) << "a periodic one goes on, for nobody";
    EXPECT_EQ(owner.handle()->GetRefCount(), 1);
}

TEST(Timer, ChildOfAForkHasNoneSetAndCanSetItsOwn) {
    const auto timer = makeTimer();
    auto soonest = makeTimer();
    set(timer, in(0));
    ASSERT_TRUE(firesNext(0));  // their thread runs: a sanitizer cannot have a fork while one is starting
    set(timer, in(3'600'000));
    set(soonest, in(20), 1);
    const pid_t child = fork();
    if (child == 0) {
        UserAPCCheck();  // what was due before the fork
        if (cancel(timer) != 0 || SleepEx(40, TRUE) != 0) _exit(1);
#if !defined(__SANITIZE_THREAD__)  // which stops a forked process that makes a thread
        if (set(timer, in(5), 2) != 1 || !firesNext(2)) _exit(2);
#endif
        soonest.reset();
        _exit(0);
    }
    int status = -1;
    ASSERT_EQ(TEMP_FAILURE_RETRY(waitpid(child, &status, 0)), child);  // the timer's call interrupts it
    EXPECT_EQ(status, 0) << WEXITSTATUS(status);
    EXPECT_TRUE(firesNext(1));
    EXPECT_EQ(cancel(timer), 1);
}

// Whole seconds decide, then the order of setting: within one second a timer does not fire before those set earlier.
TEST(TimerStress, AThousandFireOnceEachInOrderOnTheirThreads) {
    constexpr int kEach = 250;
    Workers(4, [](int number) {
        std::minstd_rand random(static_cast<unsigned>(number + 1));
        std::vector<OwnedHandle> timers;
        for (int i = 0; i < kEach; ++i)
            ASSERT_EQ(set(timers.emplace_back(makeTimer()), in(static_cast<long>(random() % 2500)), i), 1);
        const timespec allSet = in(0);  // on a busy machine some were due before, and did not wait for others
        const auto giveUp = now() + std::chrono::seconds{kBoundSeconds};
        while (fired.size() < kEach && now() < giveUp) SleepEx(100, TRUE);
        EXPECT_TRUE(noneFiresFor(20));
        EXPECT_EQ(fired.size(), size_t{kEach});
        std::vector<int> times(kEach);
        for (const Fired& one : fired) {
            EXPECT_FALSE(one.early) << one.number;
            EXPECT_EQ(one.thread, pthread_self());
            ++times[static_cast<size_t>(one.number)];
        }
        EXPECT_EQ(times, std::vector<int>(kEach, 1));
        std::erase_if(fired, [&](const Fired& one) { return isBefore(one.due, allSet); });
        EXPECT_TRUE(std::is_sorted(fired.begin(), fired.end(), [](const Fired& left, const Fired& right) {
            return std::pair{left.due.tv_sec, left.number} < std::pair{right.due.tv_sec, right.number};
        }));
    }).clear();
}

}  // namespace
