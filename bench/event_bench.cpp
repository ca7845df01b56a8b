// event_bench.cpp: events, waits and asynchronous calls, in one thread and between two.

#include <pthread.h>
#include <sched.h>
#include <traiklofox/events.h>
#include <traiklofox/threads.h>
#include <traiklofox/wait.h>

#include <atomic>
#include <deque>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "support/floor.h"

namespace traiklofox::bench {
namespace {

struct HandleCloser {
    void operator()(Handle* handle) const { CloseHandle(handle); }
};
using OwnedHandle = std::unique_ptr<Handle, HandleCloser>;

OwnedHandle autoEvent() {
    return OwnedHandle{CreateEvent(nullptr, /*manualReset=*/FALSE, /*initialState=*/FALSE, nullptr)};
}

class MutexLock {
  public:
    explicit MutexLock(pthread_mutex_t& mutex) : mutex_(mutex) { pthread_mutex_lock(&mutex_); }
    ~MutexLock() { pthread_mutex_unlock(&mutex_); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

  private:
    pthread_mutex_t& mutex_;
};

/// The least that one thread can wake another with.
class Baton {
  public:
    void pass() {
        const MutexLock lock(mutex_);
        passed_ = true;
        pthread_cond_signal(&condition_);
    }
    void take() {
        const MutexLock lock(mutex_);
        while (!passed_) pthread_cond_wait(&condition_, &mutex_);
        passed_ = false;
    }

  private:
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t condition_ = PTHREAD_COND_INITIALIZER;
    bool passed_ = false;
};

/// An event, and the others that a wait for it includes; it is the last of them.
class Place {
  public:
    explicit Place(size_t places) {
        for (size_t i = 0; i < places; ++i) handles_.push_back(owned_.emplace_back(autoEvent()).get());
    }
    void pass() { SetEvent(handles_.back()); }
    void take() {
        if (handles_.size() == 1) {
            WaitForSingleObject(handles_.front(), INFINITE);
        } else {
            WaitForMultipleObjects(static_cast<DWORD>(handles_.size()), handles_.data(), FALSE, INFINITE);
        }
    }

  private:
    std::vector<OwnedHandle> owned_;
    std::vector<Handle*> handles_;
};

/// Keeps the calling thread, and those that it creates, on one core for a scope. Between two cores a wake-up
/// takes what the sleep of an idle core or the load of a busy one makes it, 10 to 200 us, whoever asks for it; on
/// one, two threads take turns at a cost of their own.
class Cores {
  public:
    explicit Cores(const benchmark::State& state) {
        sched_getaffinity(0, sizeof all_, &all_);
        if (state.range(0) != 1) return;
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(static_cast<size_t>(sched_getcpu()), &one);
        sched_setaffinity(0, sizeof one, &one);
    }
    ~Cores() { sched_setaffinity(0, sizeof all_, &all_); }
    Cores(const Cores&) = delete;
    Cores& operator=(const Cores&) = delete;

  private:
    cpu_set_t all_;
};

void onOneCoreAndOnTwo(benchmark::internal::Benchmark& runs) {
    runs.ArgName("cores")->Arg(1)->Arg(2);
}

/// Two threads wake each other in turn; one iteration is there and back.
template <class There, class Back>
void pingPong(benchmark::State& state, There& there, Back& back) {
    const Cores cores{state};
    std::atomic<bool> stop = false;
    std::thread partner{[&] {
        for (;;) {
            there.take();
            if (stop) break;
            back.pass();
        }
    }};
    for (auto _ : state) {
        there.pass();
        back.take();
    }
    stop = true;
    there.pass();
    partner.join();
}

void batonPingPong(benchmark::State& state) {
    Baton there;
    Baton back;
    pingPong(state, there, back);
}

template <size_t kThere, size_t kBack>
void eventPingPong(benchmark::State& state) {
    Place there{kThere};
    Place back{kBack};
    pingPong(state, there, back);
}

void setThenWait(benchmark::State& state) {
    const OwnedHandle event = autoEvent();
    for (auto _ : state) {
        SetEvent(event.get());
        benchmark::DoNotOptimize(WaitForSingleObject(event.get(), INFINITE));
    }
}

void lockAndUnlock(benchmark::State& state) {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    for (auto _ : state) {
        pthread_mutex_lock(&mutex);
        benchmark::ClobberMemory();
        pthread_mutex_unlock(&mutex);
    }
}

void setThenWaitForAny(benchmark::State& state) {
    Place events{static_cast<size_t>(state.range(0))};
    for (auto _ : state) {
        events.pass();
        events.take();
    }
}

void flagThenScan(benchmark::State& state) {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    std::vector<std::unique_ptr<int>> flags;  // each somewhere, as an event is
    for (int i = 0; i < state.range(0); ++i) flags.push_back(std::make_unique<int>(0));
    for (auto _ : state) {
        {
            const MutexLock lock(mutex);
            *flags.back() = 1;
        }
        const MutexLock lock(mutex);
        for (const auto& flag : flags) {
            benchmark::DoNotOptimize(*flag);
            if (*flag == 0) continue;
            *flag = 0;
            break;
        }
    }
}

/// One iteration: a call queued to a thread that waits alertably, and the thread's answer.
void asyncCallRoundTrip(benchmark::State& state) {
    const Cores cores{state};
    const OwnedHandle answered = autoEvent();
    const OwnedHandle ready = autoEvent();
    std::atomic<bool> stop = false;
    Handle* partner = nullptr;
    std::thread thread{[&] {
        constexpr DWORD kHour = 3'600'000;
        const OwnedHandle never = autoEvent();
        partner = GetCurrentThread();
        SetEvent(ready.get());
        while (!stop) WaitForSingleObjectEx(never.get(), kHour, TRUE);
    }};
    WaitForSingleObject(ready.get(), INFINITE);
    const auto answer = [](void* event, void*, void*) { SetEvent(static_cast<Handle*>(event)); };
    for (auto _ : state) {
        QueueUserAPC(answer, partner, reinterpret_cast<ULONG_PTR>(answered.get()));
        WaitForSingleObject(answered.get(), INFINITE);
    }
    stop = true;
    QueueUserAPC(answer, partner, reinterpret_cast<ULONG_PTR>(answered.get()));
    thread.join();
}

/// The least that a thread can be given work with.
class WorkQueue {
  public:
    using Work = std::pair<void (*)(void*), void*>;
    void push(Work work) {
        const MutexLock lock(mutex_);
        queue_.push_back(work);
        pthread_cond_signal(&condition_);
    }
    Work pop() {
        const MutexLock lock(mutex_);
        while (queue_.empty()) pthread_cond_wait(&condition_, &mutex_);
        const Work work = queue_.front();
        queue_.pop_front();
        return work;
    }

  private:
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t condition_ = PTHREAD_COND_INITIALIZER;
    std::deque<Work> queue_;
};

void workQueueRoundTrip(benchmark::State& state) {
    const Cores cores{state};
    WorkQueue queue;
    Baton answered;
    std::thread partner{[&] {
        for (;;) {
            const auto [function, argument] = queue.pop();
            if (function == nullptr) break;
            function(argument);
        }
    }};
    const auto answer = [](void* baton) { static_cast<Baton*>(baton)->pass(); };
    for (auto _ : state) {
        queue.push({answer, &answered});
        answered.take();
    }
    queue.push({nullptr, nullptr});
    partner.join();
}

const Comparison kSetThenWait{{
    .operation = "event: set, then wait",
    .body = setThenWait,
    .floor = "mutex: lock, unlock",
    .floorBody = lockAndUnlock,
    .aim = 2,
}};
const Comparison kWaitForAny{{
    .operation = "events: set one, then wait for any",
    .body = setThenWaitForAny,
    .floor = "a flag set, then all scanned, under a mutex",
    .floorBody = flagThenScan,
    .aim = 3,
    .configure = [](benchmark::internal::Benchmark& runs) { runs.Arg(2)->Arg(8)->Arg(64); },
}};
const Comparison kPingPong{{
    .operation = "events: ping-pong",
    .body = eventPingPong<1, 1>,
    .floor = "mutex + condition",
    .floorBody = batonPingPong,
    .aim = 1.15,
    .configure = onOneCoreAndOnTwo,
}};
const Comparison kPingPongOfAny{{
    .operation = "events: ping-pong, one side waits for any of 64",
    .body = eventPingPong<1, 64>,
    .floor = "mutex + condition",
    .floorBody = batonPingPong,
    .aim = 1.6,
    .configure = onOneCoreAndOnTwo,
}};
const Comparison kPingPongOfTwo{{
    .operation = "events: ping-pong, both wait for any of 2",
    .body = eventPingPong<2, 2>,
    .floor = "mutex + condition",
    .floorBody = batonPingPong,
    .configure = onOneCoreAndOnTwo,
}};
const Comparison kAsyncCall{{
    .operation = "asynchronous call and answer",
    .body = asyncCallRoundTrip,
    .floor = "queue + mutex + condition, and back",
    .floorBody = workQueueRoundTrip,
    .aim = 1.5,
    .configure = onOneCoreAndOnTwo,
}};

}  // namespace
}  // namespace traiklofox::bench
