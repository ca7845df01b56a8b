// thread_bench.cpp: threads, the thread pool, and how late timers are.

#include <pthread.h>
#include <time.h>
#include <traiklofox/clocks.h>
#include <traiklofox/thread_pool.h>
#include <traiklofox/threads.h>
#include <traiklofox/timers.h>

#include <algorithm>
#include <vector>

#include "support/threads.h"

namespace traiklofox::bench {
namespace {

void createAndWait(benchmark::State& state) {
    for (auto _ : state) {
        const OwnedHandle thread{CreateThread(
            nullptr, 0, [](void*) -> DWORD { return 0; }, nullptr, 0, nullptr)};
        WaitForSingleObject(thread.get(), INFINITE);
    }
}

void createAndJoin(benchmark::State& state) {
    for (auto _ : state) {
        pthread_t thread;
        pthread_create(
            &thread, nullptr, [](void*) -> void* { return nullptr; }, nullptr);
        pthread_join(thread, nullptr);
    }
}

constexpr int kJobs = 10'000;

/// Empty jobs, and the end of the last.
struct Batch {
    std::atomic<int> left = 0;
    Baton done;
    static void run(void* untyped) {
        auto& batch = *static_cast<Batch*>(untyped);
        if (--batch.left == 0) batch.done.pass();
    }
};

void poolJobs(benchmark::State& state) {
    const auto workers = static_cast<DWORD>(state.range(0));
    Batch batch;
    ThreadPool pool{workers, workers, Batch::run, nullptr, nullptr, nullptr, INFINITE};
    for (auto _ : state) {
        batch.left = kJobs;
        for (int i = 0; i < kJobs; ++i) pool.Produce(&batch);
        batch.done.take();
    }
    state.SetItemsProcessed(state.iterations() * kJobs);
}

void workQueueJobs(benchmark::State& state) {
    Batch batch;
    WorkQueue queue;
    std::vector<std::thread> workers;
    for (int i = 0; i < state.range(0); ++i) {
        workers.emplace_back([&queue] {
            for (;;) {
                const auto [function, argument] = queue.pop();
                if (function == nullptr) break;
                function(argument);
            }
        });
    }
    for (auto _ : state) {
        batch.left = kJobs;
        for (int i = 0; i < kJobs; ++i) queue.push({Batch::run, &batch});
        batch.done.take();
    }
    for (size_t i = 0; i < workers.size(); ++i) queue.push({nullptr, nullptr});
    for (std::thread& worker : workers) worker.join();
}

constexpr int kTimers = 1000;
constexpr long kSpacing = 500'000;  // nanoseconds between two due times
constexpr long kSecond = 1'000'000'000;

timespec after(timespec time, long nanoseconds) {
    time.tv_nsec += nanoseconds;
    time.tv_sec += time.tv_nsec / kSecond;
    time.tv_nsec %= kSecond;
    return time;
}
timespec wallClock() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return now;
}
double secondsSince(const timespec& due) {
    const timespec now = wallClock();
    return static_cast<double>(now.tv_sec - due.tv_sec) +
           static_cast<double>(now.tv_nsec - due.tv_nsec) / kSecond;
}
/// The due times of one round, ascending.
std::vector<timespec> dueTimes() {
    const timespec start = after(wallClock(), 20'000'000);
    std::vector<timespec> due;
    for (int i = 0; i < kTimers; ++i) due.push_back(after(start, i * kSpacing));
    return due;
}
double percentile(std::vector<double> values, int percent) {
    std::sort(values.begin(), values.end());
    return values[values.size() * static_cast<size_t>(percent) / 100];
}

std::vector<double> lateness;

template <int kPercent>
void timersLateness(benchmark::State& state) {
    std::vector<OwnedHandle> timers;
    for (int i = 0; i < kTimers; ++i) timers.emplace_back(CreateWaitableTimer(nullptr, FALSE, nullptr));
    const auto note = [](void*, void* seconds, void* nanoseconds) {
        lateness.push_back(secondsSince({static_cast<time_t>(reinterpret_cast<LONG_PTR>(seconds)),
                                         static_cast<long>(reinterpret_cast<LONG_PTR>(nanoseconds))}));
    };
    for (auto _ : state) {
        lateness.clear();
        const std::vector<timespec> due = dueTimes();
        for (size_t i = 0; i < due.size(); ++i)
            SetWaitableTimer(timers[i].get(), &due[i], 0, note, nullptr, FALSE);
        while (lateness.size() < due.size()) SleepEx(1000, TRUE);
        state.SetIterationTime(percentile(lateness, kPercent));
    }
}

template <int kPercent>
void sleepsLateness(benchmark::State& state) {
    for (auto _ : state) {
        lateness.clear();
        for (const timespec& due : dueTimes()) {
            clock_nanosleep(CLOCK_REALTIME, TIMER_ABSTIME, &due, nullptr);
            lateness.push_back(secondsSince(due));
        }
        state.SetIterationTime(percentile(lateness, kPercent));
    }
}

void once(benchmark::internal::Benchmark& runs) {
    runs.Iterations(1);
}

const Comparison kThread{{
    .operation = "thread: create, wait",
    .body = createAndWait,
    .floor = "pthread_create, join",
    .floorBody = createAndJoin,
    .aim = 1.25,
}};
const Comparison kPool{{
    .operation = "pool: ten thousand empty jobs",
    .body = poolJobs,
    .floor = "mutex + condition + deque, as many workers",
    .floorBody = workQueueJobs,
    .aim = 1.25,
    .configure =
        [](benchmark::internal::Benchmark& runs) { runs.ArgName("workers")->Arg(1)->Arg(2)->Arg(8); },
}};
const Comparison kTimerMedian{{
    .operation = "a thousand timers: lateness, median",
    .body = timersLateness<50>,
    .floor = "clock_nanosleep",
    .floorBody = sleepsLateness<50>,
    .measuresItself = true,
    .configure = once,
}};
const Comparison kTimerTail{{
    .operation = "a thousand timers: lateness, 99th percentile",
    .body = timersLateness<99>,
    .floor = "clock_nanosleep",
    .floorBody = sleepsLateness<99>,
    .aimNanoseconds = 2'000'000,
    .measuresItself = true,
    .configure = once,
}};

}  // namespace
}  // namespace traiklofox::bench
