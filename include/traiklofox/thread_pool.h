#pragma once

/// Worker threads that come as jobs need them and go when they stay idle.

#include <traiklofox/thread_safety.h>
#include <traiklofox/threads.h>

#include <deque>

/// The start routine of every worker: takes jobs of the `ThreadPool` that `pool` points to until it is to end, and ends
/// by the pool's exit function. Returns 0 should that return. For a creator function, which gets it as an argument.
TRAIKLOFOX_API DWORD ThreadPoolConsume(void* pool);

/// A queue of jobs, first in, first out, and its workers: none at first, at most `maxWorkers`, down to `minWorkers`
/// again when they stay idle. A job waits only while that many workers are busy or being started.
///
/// Thread safety: any thread, a job's too, may call any member; none may while the pool is destroyed. The functions
/// that the application gives are called without a lock, on whatever thread needs them.
class TRAIKLOFOX_API TRAIKLOFOX_CAPABILITY("thread pool") ThreadPool {
  public:
    /// Starts a thread that runs `routine(argument)`. True when one was started.
    typedef bool (*Creator)(DWORD (*routine)(void*), void* argument);
    /// Runs one job.
    typedef void (*Work)(void* job);
    /// Ends the calling worker, which has left the pool.
    typedef void (*Exit)(unsigned int code);
    /// Disposes of a job that was never run.
    typedef void (*Discard)(void* job);

    /// A value for each thread, null at first.
    class TRAIKLOFOX_API ThreadData {
      public:
        /// What `GetKey` returns when the system had no key left.
        static constexpr pthread_key_t invalidKeyValue = static_cast<pthread_key_t>(-1);

        ThreadData();
        ~ThreadData();
        ThreadData(const ThreadData&) = delete;
        ThreadData& operator=(const ThreadData&) = delete;

        /// Sets the calling thread's value. Returns false without a key.
        bool SetData(void* value);
        /// The calling thread's value; null without a key.
        void* GetData() const;
        pthread_key_t GetKey() const { return key; }

      private:
        pthread_key_t key;
    };

    /// Makes a pool without workers.
    ///
    /// minWorkers   how many stay, however long they are idle. None is started before the first job.
    /// maxWorkers   how many there are at most; with 0 every job waits until the pool is destroyed.
    /// work         runs a job, on a worker. It may end its thread; the worker then leaves the pool.
    /// creator      starts a worker, on the thread that produced the job; null: `DefaultCreator`.
    /// exitFunction ends a worker, with the code 0; null: `pthread_exit`. When it returns, so does the worker's
    /// routine.
    /// discard      disposes of the jobs that the destructor finds; null: they are dropped.
    /// idleTimeout  milliseconds that a worker above the minimum waits for a job before it ends, by `FixTimeout`: one
    ///              under 1000, or above 0x7FFFFFFF, ends it as soon as it finds none. INFINITE: it stays.
    ThreadPool(DWORD minWorkers, DWORD maxWorkers, Work work, Creator creator, Exit exitFunction,
               Discard discard, DWORD idleTimeout);
    /// `Shutdown`, then passes each job that is left to the discard function, in their order, on this thread.
    ~ThreadPool();
    ThreadPool(const ThreadPool&) = delete;
    ThreadPool& operator=(const ThreadPool&) = delete;

    /// Queues a job. Wakes an idle worker when there are as many as jobs waiting, or else starts one if there are fewer
    /// than the maximum. A job for which neither is possible waits, as does one whose worker cannot be started. An
    /// allocation failure is thrown as `std::bad_alloc`, and the job is not queued.
    void Produce(void* job);

    /// For a job that will block for long: the calling worker leaves the pool, which may start another in its place;
    /// it ends when the job is done. Returns 1; or 0, with nothing changed, when it has left already, when the calling
    /// thread is no worker of this pool, or when the system had no thread-specific key for the pool.
    BOOL ExitPool();

    /// Lets every worker end, once it has done its job (one that has just been started takes one first), and returns
    /// when all have, those that left by `ExitPool` included. Returns at once when there are none. Not for a job to
    /// call, which would wait for itself.
    void Shutdown();

    /// `CreateThread` with the defaults.
    static bool DefaultCreator(DWORD (*routine)(void*), void* argument);

  private:
    friend DWORD ThreadPoolConsume(void* pool);
    class Section;
    class Worker;

    void serve();
    bool waitForJob() TRAIKLOFOX_REQUIRES(this);
    bool reserveWorker() TRAIKLOFOX_REQUIRES(this);
    void startReservedWorker();
    bool workerEnds() TRAIKLOFOX_REQUIRES(this);
    void tellShutdown() TRAIKLOFOX_REQUIRES(this);

    bool shutdown TRAIKLOFOX_GUARDED_BY(this) = false;
    const DWORD minimum;
    const DWORD maximum;
    DWORD workers TRAIKLOFOX_GUARDED_BY(this) = 0;  // those being started included
    DWORD leavers TRAIKLOFOX_GUARDED_BY(this) = 0;  // left by ExitPool, with their job still to finish
    DWORD idle TRAIKLOFOX_GUARDED_BY(this) = 0;     // waiting for a job
    const DWORD idleTimeout;
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t jobs = PTHREAD_COND_INITIALIZER;   // one has come, or the pool shuts down
    pthread_cond_t ended = PTHREAD_COND_INITIALIZER;  // the last worker has
    std::deque<void*> queue TRAIKLOFOX_GUARDED_BY(this);
    const Creator creator;
    const Work work;
    const Exit exitFunction;
    const Discard discard;
    ThreadData threadData;
};
