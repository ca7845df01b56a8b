#pragma once

// The calls queued to one thread, and what the thread sleeps on while it waits for them.
//
// A call never misses a sleeper: before it sleeps, the thread publishes what it sleeps on in the same section
// in which it finds the queue empty. Whoever queues a call after that finds the sleep published and ends it.

#include <traiklofox/threads.h>

#include <atomic>
#include <deque>

#include "foundation/mutex.h"
#include "kernel/parker.h"

namespace traiklofox::kernel {

struct QueuedCall {
    PAPCFUNC function;
    void* a;
    void* b;
    void* c;
    void (*discard)(void* a) = nullptr;  // frees what `a` is when the call never runs
};

/// What a thread sleeps on in an alertable wait, and how whoever queues a call to it ends that sleep.
struct SleepPlace {
    static SleepPlace in(Thread& thread, Parker& parker) {
        return {&thread, &parker, [](void* it) { static_cast<Parker*>(it)->unpark(); }};
    }

    Handle* keepAlive = nullptr;  // holds the place
    void* place = nullptr;
    void (*wake)(void* place) = nullptr;
};

class CallQueue {
  public:
    CallQueue() = default;
    ~CallQueue();
    CallQueue(const CallQueue&) = delete;
    CallQueue& operator=(const CallQueue&) = delete;

    /// What is left to do for whoever queued a call.
    enum class Wake {
        Nothing,  // the thread is busy and will look
        Signal,   // it may be blocked in a system call
        Sleeper,  // it sleeps at `place`, whose object has been given a reference
    };
    struct Push {
        Wake wake;
        SleepPlace place = {};
    };

    /// `byItself`: the thread itself queues the call.
    Push push(const QueuedCall& call, bool byItself);
    /// Ends the sleep that `push` reported as Sleeper, and drops the reference.
    static void endSleep(const Push& pushed);

    /// The signal that `push` asked for has arrived (in its handler), or could not be sent. While one is on its way
    /// none is asked for: the kernel would queue each of them, and has room for so many for all processes of a user, on
    /// which other things depend; a `pthread_cancel` that finds no room leaves its thread hanging.
    void signalArrived() { signalled_.store(false, std::memory_order_release); }

    /// Takes the oldest call of those that were waiting at the first look, which `first` says that this is, and of
    /// those that the thread has queued to itself since: so that other threads cannot keep it running calls for ever.
    /// A queue found empty at the first look marks the thread idle.
    bool pop(QueuedCall& call, bool first);

    /// Whether calls wait to be run. Counts as a look: an empty queue marks the thread idle.
    bool pending();

    /// Around a fork by the queue's own thread, so that the child finds the queue whole and free.
    void lockForFork() const;
    void unlockAfterFork() const;

    /// How many calls wait. Without the lock, which a suspended thread may hold.
    size_t size() const { return size_.load(std::memory_order_relaxed); }

    Parker& parker() { return parker_; }

    /// Publishes a sleep at `place` unless calls are pending. False: they are, nothing is published. Counts as
    /// a look: an empty queue marks the thread idle.
    bool publishSleep(const SleepPlace& place);
    void withdrawSleep();

  private:
    mutable foundation::Mutex<foundation::LockRank::Leaf> lock_;
    std::deque<QueuedCall> calls_ TRAIKLOFOX_GUARDED_BY(lock_);
    std::atomic<size_t> size_{0};                  // of the calls
    size_t due_ TRAIKLOFOX_GUARDED_BY(lock_) = 0;  // of the calls, for `pop`
    bool idle_ TRAIKLOFOX_GUARDED_BY(lock_) = false;
    SleepPlace sleepsAt_ TRAIKLOFOX_GUARDED_BY(lock_);
    std::atomic<bool> signalled_{false};
    Parker parker_;
};

/// Publishes the calling thread's alertable sleep for a scope.
class AlertableSleep {
  public:
    explicit AlertableSleep(const SleepPlace& place);
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
