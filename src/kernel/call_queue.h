#pragma once

// The calls queued to one thread, and what the thread sleeps on while it waits for them.
//
// A call never misses a sleeper: before it sleeps, the thread publishes what it sleeps on in the same section
// in which it finds the queue empty. Whoever queues a call after that finds the sleep published and ends it.

#include <traiklofox/threads.h>

#include <atomic>
#include <deque>

#include "foundation/mutex.h"

namespace traiklofox::kernel {

struct QueuedCall {
    PAPCFUNC function;
    void* a;
    void* b;
    void* c;
};

class CallQueue {
  public:
    /// What is left to do for whoever queued a call.
    enum class Wake {
        Nothing,  // the thread is busy and will look
        Signal,   // it may be blocked in a system call
        Sleeper,  // it sleeps on `event`; `keepAlive` has been given a reference
        Futex,    // it sleeps in sleepFor
    };
    struct Push {
        Wake wake;
        Handle* keepAlive = nullptr;
        Event* event = nullptr;
    };

    Push push(const QueuedCall& call);
    /// Ends the sleep that `push` reported as Sleeper or Futex, and drops the reference.
    void endSleep(const Push& pushed);

    /// Takes the oldest call. An empty queue marks the thread idle if `first` says that this is the first
    /// look.
    bool pop(QueuedCall& call, bool first);

    /// Whether calls wait to be run. Counts as a look: an empty queue marks the thread idle.
    bool pending();

    /// Publishes a sleep on `event` unless calls are pending. False: they are, nothing is published. Counts as
    /// a look: an empty queue marks the thread idle.
    bool publishSleep(Handle& keepAlive, Event& event);
    void withdrawSleep();

    /// Sleeps at most `milliseconds`. Returns false when the time passed, true when a call was queued or a
    /// signal handler ran.
    bool sleepFor(DWORD milliseconds);

  private:
    bool beginFutexSleep();  // false: calls are pending, as they are when it ends with true
    bool endFutexSleep();

    foundation::Mutex<foundation::LockRank::Leaf> lock_;
    std::deque<QueuedCall> calls_ TRAIKLOFOX_GUARDED_BY(lock_);
    bool idle_ TRAIKLOFOX_GUARDED_BY(lock_) = false;
    Handle* keepAlive_ TRAIKLOFOX_GUARDED_BY(lock_) = nullptr;
    Event* sleepsOn_ TRAIKLOFOX_GUARDED_BY(lock_) = nullptr;
    std::atomic<std::int32_t> futexSleep_{
        0};  // 1 while the thread sleeps in sleepFor; changed under the lock
};

/// Publishes the calling thread's alertable sleep on an event for a scope.
class AlertableSleep {
  public:
    AlertableSleep(Handle& keepAlive, Event& event);
    ~AlertableSleep();
    AlertableSleep(const AlertableSleep&) = delete;
    AlertableSleep& operator=(const AlertableSleep&) = delete;

    /// True: nothing was published, because calls are waiting to be run.
    bool callsPending() const { return !published_; }

  private:
    CallQueue& queue_;
    const bool published_;
};

}  // namespace traiklofox::kernel
