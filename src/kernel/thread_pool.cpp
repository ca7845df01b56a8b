// thread_pool.cpp: the jobs and the workers of a pool.
//
// No job is left to itself: whoever queues one finds an idle worker for it beside those that earlier jobs will wake,
// and wakes it, or starts a worker, or leaves it to a worker that looks at the queue before it goes idle or ends.
//
// A worker that may not end waits without limit. No more than the minimum do so, because each began when the workers
// were no more than that; so those above it, who do look at the time, are enough to bring the pool down again.
//
// The last worker to end tells `Shutdown` under the lock and touches the pool no more after the unlock: it may be gone.

#include <traiklofox/clocks.h>
#include <traiklofox/thread_pool.h>

#include <cerrno>

#include "foundation/lock_rank.h"
#include "foundation/on_exit.h"

using traiklofox::foundation::LockRank;
using traiklofox::foundation::onExit;

namespace {

void* const kHasLeft = reinterpret_cast<void*>(1);  // a worker's value after ExitPool

constinit thread_local const ThreadPool* servedPool = nullptr;  // by the calling thread

void exitThread(unsigned int) {
    pthread_exit(nullptr);
}

}  // namespace

/// Holds the pool's mutex for a scope, or until `leave`.
class TRAIKLOFOX_SCOPED_CAPABILITY ThreadPool::Section {
  public:
    explicit Section(ThreadPool& pool) TRAIKLOFOX_ACQUIRE(pool) : pool_(pool) { enter(); }
    ~Section() TRAIKLOFOX_RELEASE() TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
        if (held_) leave();
    }
    Section(const Section&) = delete;
    Section& operator=(const Section&) = delete;

    void leave() TRAIKLOFOX_RELEASE() TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
        held_ = false;
        traiklofox::foundation::noteLockReleased(LockRank::ThreadPool, &pool_);
        pthread_mutex_unlock(&pool_.lock);
    }
    void enter() TRAIKLOFOX_ACQUIRE() TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
        pthread_mutex_lock(&pool_.lock);
        traiklofox::foundation::noteLockAcquired(LockRank::ThreadPool, &pool_);
        held_ = true;
    }

  private:
    ThreadPool& pool_;
    bool held_ = false;
};

/// The calling thread as a worker, for a scope that a job may end by ending its thread.
class ThreadPool::Worker {
  public:
    explicit Worker(ThreadPool& pool) : pool_(pool) {
        servedPool = &pool;
        (void)pool.threadData.SetData(nullptr);  // the thread may have left the pool in an earlier life
    }
    ~Worker() {
        servedPool = nullptr;
        if (!counted_) return;
        bool replaced = false;
        {
            const Section section(pool_);
            replaced = pool_.workerEnds();
        }
        if (replaced) pool_.startReservedWorker();
    }
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    /// It has been counted out: the pool may go as soon as its mutex is free.
    void isCountedOut() { counted_ = false; }

  private:
    ThreadPool& pool_;
    bool counted_ = true;
};

ThreadPool::ThreadData::ThreadData() {
    if (pthread_key_create(&key, /*destructor=*/nullptr) != 0) key = invalidKeyValue;
}

ThreadPool::ThreadData::~ThreadData() {
    if (key != invalidKeyValue) pthread_key_delete(key);
}

bool ThreadPool::ThreadData::SetData(void* value) {
    return key != invalidKeyValue && pthread_setspecific(key, value) == 0;
}

void* ThreadPool::ThreadData::GetData() const {
    return key != invalidKeyValue ? pthread_getspecific(key) : nullptr;
}

ThreadPool::ThreadPool(DWORD minWorkers, DWORD maxWorkers, Work workFunction, Creator givenCreator,
                       Exit givenExit, Discard discardFunction, DWORD timeout)
    : minimum(minWorkers),
      maximum(maxWorkers),
      idleTimeout(timeout),
      creator(givenCreator != nullptr ? givenCreator : DefaultCreator),
      work(workFunction),
      exitFunction(givenExit != nullptr ? givenExit : exitThread),
      discard(discardFunction) {}

ThreadPool::~ThreadPool() {
    Shutdown();
    if (discard != nullptr)
        for (void* job : queue) discard(job);
    pthread_cond_destroy(&ended);
    pthread_cond_destroy(&jobs);
    pthread_mutex_destroy(&lock);
}

bool ThreadPool::DefaultCreator(DWORD (*routine)(void*), void* argument) {
    return CloseHandle(CreateThread(nullptr, 0, routine, argument, 0, nullptr)) != 0;
}

/// Counts a worker in that is to be started, when there are jobs that no idle one will take.
bool ThreadPool::reserveWorker() {
    if (idle >= queue.size() || workers >= maximum) return false;
    ++workers;
    return true;
}

void ThreadPool::startReservedWorker() {
    auto notStarted = onExit([this] {
        const Section section(*this);
        --workers;
        tellShutdown();
    });
    try {
        if (creator(ThreadPoolConsume, this)) notStarted.dismiss();
    } catch (const std::bad_alloc&) {
        return;  // the next job starts one
    }
}

void ThreadPool::Produce(void* job) {
    bool started = false;
    {
        const Section section(*this);
        queue.push_back(job);
        if (idle >= queue.size()) pthread_cond_signal(&jobs);
        started = reserveWorker();
    }
    if (started) startReservedWorker();
}

BOOL ThreadPool::ExitPool() {
    if (servedPool != this || threadData.GetData() != nullptr || !threadData.SetData(kHasLeft)) return 0;
    bool replaced = false;
    {
        const Section section(*this);
        --workers;
        ++leavers;
        replaced = !shutdown && reserveWorker();
    }
    if (replaced) startReservedWorker();
    return 1;
}

void ThreadPool::Shutdown() {
    int cancellable = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancellable);  // a destructor cannot be unwound
    const auto restore = onExit([cancellable] { pthread_setcancelstate(cancellable, nullptr); });
    const Section section(*this);
    if (workers == 0 && leavers == 0) return;
    shutdown = true;
    pthread_cond_broadcast(&jobs);
    while (workers > 0 || leavers > 0) pthread_cond_wait(&ended, &lock);
}

void ThreadPool::tellShutdown() {
    if (workers == 0 && leavers == 0) pthread_cond_broadcast(&ended);
}

/// Counts the calling worker out. True: another has been counted in, which the caller starts.
bool ThreadPool::workerEnds() {
    --(threadData.GetData() == kHasLeft ? leavers : workers);
    const bool replaced = !shutdown && reserveWorker();
    tellShutdown();
    return replaced;
}

/// Waits while there is no job. False: the worker has been idle for long enough.
bool ThreadPool::waitForJob() {
    while (queue.empty() && !shutdown) {
        ++idle;
        const auto busyAgain = onExit([this]() TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS { --idle; });
        if (workers <= minimum || idleTimeout == INFINITE) {
            pthread_cond_wait(&jobs, &lock);
            continue;
        }
        timespec deadline{};
        FixTimeout(deadline, static_cast<LONG>(idleTimeout));
        const bool timedOut = pthread_cond_timedwait(&jobs, &lock, &deadline) == ETIMEDOUT;
        if (timedOut && queue.empty() && !shutdown && workers > minimum) return false;
    }
    return true;
}

void ThreadPool::serve() {
    Worker worker(*this);
    Section section(*this);
    while (waitForJob() && !queue.empty()) {
        void* const job = queue.front();
        queue.pop_front();
        section.leave();
        work(job);
        section.enter();
        if (shutdown || threadData.GetData() == kHasLeft) break;
    }
    const bool replaced = workerEnds();
    worker.isCountedOut();
    section.leave();
    if (replaced) startReservedWorker();
}

DWORD ThreadPoolConsume(void* untyped) {
    auto& pool = *static_cast<ThreadPool*>(untyped);
    const ThreadPool::Exit end = pool.exitFunction;
    pool.serve();
    end(0);
    return 0;
}
