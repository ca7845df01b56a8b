// event_bench.cpp: events, waits and asynchronous calls, in one thread and between two.

#include <traiklofox/threads.h>

#include <vector>

#include "support/threads.h"

namespace traiklofox::bench {
namespace {

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
