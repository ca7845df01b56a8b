// Events, semaphores, waits on several kinds, timers, queued calls, the pool and children, all at once in one process.
// Each lane counts what it sends and what arrives.

#include <sys/wait.h>
#include <traiklofox/clocks.h>
#include <traiklofox/events.h>
#include <traiklofox/process.h>
#include <traiklofox/semaphores.h>
#include <traiklofox/thread_pool.h>
#include <traiklofox/threads.h>
#include <traiklofox/timers.h>
#include <traiklofox/wait.h>

#include <array>
#include <functional>
#include <thread>
#include <vector>

#include "soak/life.h"
#include "support/bounded_wait.h"
#include "support/owned_handle.h"

namespace traiklofox::soak {
namespace {

using test::OwnedHandle;

constexpr DWORD kBoundMs = 40'000;
constexpr int kHandOvers = test::kSanitized ? 100 : 1'000;
constexpr int kUnits = test::kSanitized ? 300 : 3'000;
constexpr int kTakers = 3;

OwnedHandle makeEvent() {
    return OwnedHandle(CreateEvent(nullptr, /*manualReset=*/FALSE, /*initialState=*/FALSE, nullptr));
}

/// One thread sets one of several events, another waits for any and answers, each time once.
void handEventsOver(unsigned seed) {
    std::array<OwnedHandle, 8> events;
    std::vector<Handle*> handles;
    for (OwnedHandle& event : events) handles.push_back((event = makeEvent()).get());
    const OwnedHandle answered = makeEvent();
    std::atomic<DWORD> sent = 0;
    const std::jthread answerer([&] {
        for (int i = 0; i < kHandOvers; ++i) {
            const DWORD count = static_cast<DWORD>(handles.size());
            const DWORD which = WaitForMultipleObjects(count, handles.data(), FALSE, kBoundMs);
            check(SignalsArrive, which == sent, "hand-over %d: event %u of %u", i,
                  static_cast<unsigned>(which), static_cast<unsigned>(sent));
            SetEvent(answered.get());
        }
    });
    test::Random random{std::mt19937(seed)};
    for (int i = 0; i < kHandOvers; ++i) {
        sent = random.below(8);
        const bool came = timed(Op::Signal, [&] {
            SetEvent(handles[sent]);
            return WaitForSingleObject(answered.get(), kBoundMs) == WAIT_OBJECT_0;
        });
        check(SignalsArrive, came, "hand-over %d is not answered", i);
    }
}

/// What is released in pieces is taken in units, no more and no less.
void takeUnits(unsigned seed) {
    const OwnedHandle semaphore(CreateSemaphore(nullptr, 0, kUnits, nullptr));
    std::vector<std::jthread> takers;
    for (int i = 0; i < kTakers; ++i) {
        takers.emplace_back([&] {
            for (int units = 0; units < kUnits / kTakers; ++units) {
                const bool taken = timed(Op::SemaphoreUnit, [&] {
                    return WaitForSingleObject(semaphore.get(), kBoundMs) == WAIT_OBJECT_0;
                });
                check(SignalsArrive, taken, "unit %d does not come", units);
            }
        });
    }
    test::Random random{std::mt19937(seed)};
    for (int left = kUnits; left > 0;) {
        const int piece = std::min(left, 1 + static_cast<int>(random.below(10)));
        check(SignalsArrive, ReleaseSemaphore(semaphore.get(), piece, nullptr), "release refused");
        left -= piece;
    }
    takers.clear();
    check(SignalsArrive, WaitForSingleObject(semaphore.get(), 0) == WAIT_TIMEOUT, "a unit too many");
}

OwnedHandle startChild(unsigned code) {
    std::string line = "/bin/sh -c 'exit " + std::to_string(code) + "'";
    _PROCESS_INFORMATION info{};
    (void)CreateProcess(nullptr, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, nullptr, &info);
    return OwnedHandle(info.hProcess);
}

void checkChild(const OwnedHandle& child, DWORD expected) {
    DWORD code = ~DWORD{0};
    const bool given = child != nullptr && GetExitCodeProcess(child.get(), &code);
    check(ChildrenReaped, given && code == expected, "exit code %u instead of %u (%d)",
          static_cast<unsigned>(code), static_cast<unsigned>(expected), given);
}

/// A child, a thread and an event, each reported once in whatever order they come.
void waitForSeveralKinds(unsigned seed) {
    const OwnedHandle event = makeEvent();
    const OwnedHandle child = startChild(seed % 200);
    const OwnedHandle thread(CreateThread(
        nullptr, 0, [](void* set) -> DWORD { return SetEvent(static_cast<Handle*>(set)) ? 0 : 1; },
        event.get(), 0, nullptr));
    std::vector<Handle*> left{event.get(), thread.get(), child.get()};
    (void)timed(Op::MixedWait, [&] {
        while (left.size() > 1) {  // the last one's kind stands alone
            const DWORD which =
                WaitForMultipleObjects(static_cast<DWORD>(left.size()), left.data(), FALSE, kBoundMs);
            check(SignalsArrive, which < left.size(), "of %zu kinds none comes: %u", left.size(),
                  static_cast<unsigned>(which));
            if (which >= left.size()) return false;
            left.erase(left.begin() + static_cast<std::ptrdiff_t>(which));
        }
        return WaitForSingleObject(left.front(), kBoundMs) == WAIT_OBJECT_0;
    });
    checkChild(child, seed % 200);
}

void runChildren(unsigned seed) {
    const auto start = Clock::now();
    const DWORD code = seed % 100;
    checkChild(startChild(code), code);
    note(Op::Child, Clock::now() - start);
    (void)startChild(code);  // closed at once: the library reaps it
    const OwnedHandle killed = startChild(code);
    (void)TerminateProcess(killed.get(), 0);  // it may have ended
    DWORD found = 0;
    const bool given = GetExitCodeProcess(killed.get(), &found);
    check(ChildrenReaped, given && (found == code || found == ~DWORD{0}), "terminated child: code %u",
          static_cast<unsigned>(found));
}

using WallClock = std::chrono::system_clock;  // the real one, which the library's waits go by

struct Shot {
    OwnedHandle timer;
    WallClock::time_point due;
    int fired = 0;
    bool isCancelled = false;
};

void noteShot(void* argument, void*, void*) {
    auto& shot = *static_cast<Shot*>(argument);
    const auto late = WallClock::now() - shot.due;
    ++shot.fired;
    check(TimersFire, late >= WallClock::duration::zero(), "%lld us early",
          static_cast<long long>(-late / std::chrono::microseconds{1}));
    note(Op::Timer, std::chrono::duration_cast<Clock::duration>(late));
}

std::atomic<int> callsRun;

/// Timers and calls of another thread arrive in this thread's alertable waits.
void fireTimersAndCalls(unsigned seed) {
    constexpr int kTimers = 20;
    constexpr int kCalls = 100;
    std::vector<Shot> shots(kTimers);
    callsRun = 0;
    Handle* self = nullptr;
    DuplicateHandle(nullptr, GetCurrentThread(), nullptr, &self, 0, FALSE, 0);
    const OwnedHandle owned(self);
    test::Random random{std::mt19937(seed)};
    for (Shot& shot : shots) {
        shot.timer.reset(CreateWaitableTimer(nullptr, FALSE, nullptr));
        shot.due = std::chrono::time_point_cast<std::chrono::microseconds>(WallClock::now()) +
                   std::chrono::milliseconds{random.below(120)};
        const auto since = shot.due.time_since_epoch();
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(since);
        timespec due{};
        due.tv_sec = static_cast<time_t>(seconds.count());
        due.tv_nsec = static_cast<long>(std::chrono::nanoseconds{since - seconds}.count());
        check(TimersFire, SetWaitableTimer(shot.timer.get(), &due, 0, noteShot, &shot, FALSE), "not set");
    }
    for (size_t i = 0; i < shots.size(); i += 5)
        shots[i].isCancelled = CancelWaitableTimer(shots[i].timer.get());
    const std::jthread caller([&] {
        for (int i = 0; i < kCalls; ++i) QueueUserAPC([](void*, void*, void*) { ++callsRun; }, self, 0);
    });
    const auto start = Clock::now();
    const auto allCame = [&] {
        for (const Shot& shot : shots)
            if (!shot.isCancelled && shot.fired == 0) return false;
        return callsRun == kCalls;
    };
    while (!allCame() && Clock::now() - start < std::chrono::milliseconds{kBoundMs}) (void)SleepEx(100, TRUE);
    note(Op::QueuedCall, Clock::now() - start);
    (void)SleepEx(1, TRUE);
    check(SignalsArrive, callsRun == kCalls, "%d of %d calls", callsRun.load(), kCalls);
    for (const Shot& shot : shots)
        check(TimersFire, shot.fired == (shot.isCancelled ? 0 : 1), "fired %d times%s", shot.fired,
              shot.isCancelled ? ", cancelled" : "");
}

struct Job {
    Clock::time_point queued;
    std::atomic<int> runs = 0;
};
ThreadPool* pool;

void runJob(void* argument) {
    auto& job = *static_cast<Job*>(argument);
    if (job.queued.time_since_epoch().count() % 16 == 0) (void)pool->ExitPool();  // as some of them do
    note(Op::PoolJob, Clock::now() - job.queued);
    ++job.runs;
}

void runPool(unsigned) {
    constexpr int kJobs = 100;
    std::vector<Job> jobs(2 * kJobs);
    {
        ThreadPool workers(1, 4, runJob, nullptr, nullptr, nullptr, /*idleTimeout=*/1000);
        pool = &workers;
        {
            std::array<std::jthread, 2> producers;
            for (size_t i = 0; i < producers.size(); ++i)
                producers[i] = std::jthread([&, i] {
                    for (size_t j = i; j < jobs.size(); j += producers.size()) {
                        jobs[j].queued = Clock::now();
                        workers.Produce(&jobs[j]);
                    }
                });
        }
        const bool allRan = test::within(std::chrono::milliseconds{kBoundMs}, [&] {
            for (const Job& job : jobs)
                if (job.runs == 0) return false;
            return true;
        });
        check(JobsRun, allRan, "a job has not run");
    }
    for (const Job& job : jobs) check(JobsRun, job.runs == 1, "run %d times", job.runs.load());
}

bool isChildless() {
    siginfo_t info{};
    return ::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == -1 && errno == ECHILD;
}

constexpr void (*kLanes[])(unsigned seed) = {
    handEventsOver, takeUnits, waitForSeveralKinds, runChildren, fireTimersAndCalls, runPool,
};

TEST_ROLE(kernel) {
    Life life(args, kSmallSteps);
    Process::StartThread();  // which comes with the first child that still runs when it is waited for
    return life.live([&] {
        {
            std::vector<std::jthread> lanes;
            for (const auto lane : kLanes) lanes.emplace_back(lane, life.random.below(1'000'000));
        }
        check(ChildrenReaped, test::within(std::chrono::milliseconds{kBoundMs}, isChildless),
              "a child is left over");
    });
}

}  // namespace
}  // namespace traiklofox::soak
