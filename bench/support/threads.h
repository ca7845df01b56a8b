#pragma once

// What the benchmarks of several threads share: handles, the floors that wake and feed threads, and the cores that
// they run on.

#include <pthread.h>
#include <sched.h>
#include <traiklofox/events.h>
#include <traiklofox/wait.h>

#include <atomic>
#include <deque>
#include <memory>
#include <thread>
#include <utility>

#include "support/floor.h"

namespace traiklofox::bench {

struct HandleCloser {
    void operator()(Handle* handle) const { CloseHandle(handle); }
};
using OwnedHandle = std::unique_ptr<Handle, HandleCloser>;

inline OwnedHandle autoEvent() {
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

inline void onOneCoreAndOnTwo(benchmark::internal::Benchmark& runs) {
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

}  // namespace traiklofox::bench
