// synch_bench.cpp: semaphores and mutexes, uncontended, fought over and passed on.

#include <pthread.h>
#include <semaphore.h>
#include <traiklofox/semaphores.h>

#include "support/threads.h"

namespace traiklofox::bench {
namespace {

/// One of the library's semaphores, and the system's.
class OurSemaphore {
  public:
    explicit OurSemaphore(LONG count) : semaphore_(CreateSemaphore(nullptr, count, count + 1, nullptr)) {}
    void pass() { ReleaseSemaphore(semaphore_.get(), 1, nullptr); }
    void take() { WaitForSingleObject(semaphore_.get(), INFINITE); }

  private:
    OwnedHandle semaphore_;
};

class NativeSemaphore {
  public:
    explicit NativeSemaphore(unsigned count) { sem_init(&semaphore_, /*pshared=*/0, count); }
    NativeSemaphore(const NativeSemaphore&) = delete;
    NativeSemaphore& operator=(const NativeSemaphore&) = delete;
    ~NativeSemaphore() { sem_destroy(&semaphore_); }
    void pass() { sem_post(&semaphore_); }
    void take() {
        while (sem_wait(&semaphore_) != 0) continue;  // interrupted
    }

  private:
    sem_t semaphore_;
};

class OurMutex {
  public:
    void pass() { ReleaseMutex(mutex_.get()); }
    void take() { WaitForSingleObject(mutex_.get(), INFINITE); }

  private:
    OwnedHandle mutex_{CreateMutex(nullptr, FALSE, nullptr)};
};

/// Recursive, as the library's is.
class NativeMutex {
  public:
    void pass() { pthread_mutex_unlock(&mutex_); }
    void take() { pthread_mutex_lock(&mutex_); }

  private:
    pthread_mutex_t mutex_ = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
};

/// Takes and gives back, alone or beside another thread that does the same with the same lock.
template <class Lock, auto... kArguments>
void takeAndPass(benchmark::State& state) {
    static auto& lock = *new Lock{kArguments...};
    static long guarded = 0;
    for (auto _ : state) {
        lock.take();
        benchmark::DoNotOptimize(++guarded);
        lock.pass();
    }
}

template <class Semaphore>
void semaphorePingPong(benchmark::State& state) {
    Semaphore there{0};
    Semaphore back{0};
    pingPong(state, there, back);
}

void byOneAndByTwo(benchmark::internal::Benchmark& runs) {
    runs.Threads(1)->Threads(2);
}

const Comparison kSemaphore{{
    .operation = "semaphore: wait, release",
    .body = takeAndPass<OurSemaphore, 1L>,
    .floor = "sem_t",
    .floorBody = takeAndPass<NativeSemaphore, 1U>,
    .aim = 1.25,
    .configure = byOneAndByTwo,
}};
const Comparison kSemaphorePingPong{{
    .operation = "semaphores: ping-pong",
    .body = semaphorePingPong<OurSemaphore>,
    .floor = "sem_t",
    .floorBody = semaphorePingPong<NativeSemaphore>,
    .aim = 1.25,
    .configure = onOneCoreAndOnTwo,
}};
const Comparison kMutex{{
    .operation = "mutex: wait, release",
    .body = takeAndPass<OurMutex>,
    .floor = "recursive pthread mutex",
    .floorBody = takeAndPass<NativeMutex>,
    .aim = 1.25,
    .configure = byOneAndByTwo,
}};

}  // namespace
}  // namespace traiklofox::bench
