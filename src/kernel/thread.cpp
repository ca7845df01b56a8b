// thread.cpp: the Thread kind: its end, which every wait sees, and the signals and priorities of a running
// one.
//
// The state lock is what a thread's exit takes to give its id up: who holds it and finds an id may use it.
// Whoever suspends or resumes a thread needs it. So nobody can be suspended who holds one, and nobody waits for
// anything under it: a suspended thread may have its call queue, the heap or libc's record of it locked. Calls of libc
// that may wait for the thread use its id without the lock, and its exit waits for them.

#include <traiklofox/events.h>
#include <traiklofox/threads.h>
#include <traiklofox/wait.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <optional>

#include "foundation/lock_rank.h"
#include "foundation/mutex.h"
#include "kernel/call_queue.h"
#include "kernel/signals.h"
#include "kernel/thread_life.h"

using traiklofox::foundation::LockRank;
using traiklofox::kernel::CallQueue;
using traiklofox::kernel::callSignal;
using traiklofox::kernel::QueuedCall;
using traiklofox::kernel::SuspensionDeferred;
using traiklofox::kernel::ThreadLife;

/// Holds a thread's state lock for a scope.
class TRAIKLOFOX_SCOPED_CAPABILITY Thread::StateGuard {
  public:
    explicit StateGuard(const Thread& thread) TRAIKLOFOX_ACQUIRE(thread) : thread_(thread) {
        thread_.lockSelf();
    }
    ~StateGuard() TRAIKLOFOX_RELEASE() { thread_.unlockSelf(); }
    StateGuard(const StateGuard&) = delete;
    StateGuard& operator=(const StateGuard&) = delete;

    /// False for a thread that cannot be signalled.
    bool interrupt(int signalNumber) const TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {  // what a guard is for
        return thread_.tid != 0 && pthread_kill(thread_.tid, signalNumber) == 0;
    }

  private:
    const SuspensionDeferred deferred_;  // outlives the unlock
    const Thread& thread_;
};

/// Keeps the id of a running thread valid for a scope that does not hold the state lock. The user cannot be suspended
/// meanwhile: an exit that waits for it waits for nobody's `Resume`.
class Thread::IdUse {
  public:
    explicit IdUse(const Thread& thread) : thread_(thread) {
        const StateGuard guard(thread);
        if (thread.state == THREAD_FINISHED || thread.tid == 0) return;
        id_ = thread.tid;
        thread.idUses.fetch_add(1, std::memory_order_relaxed);
    }
    ~IdUse() {
        if (id_ && thread_.idUses.fetch_sub(1, std::memory_order_release) == 1) thread_.idUses.notify_one();
    }
    IdUse(const IdUse&) = delete;
    IdUse& operator=(const IdUse&) = delete;

    /// None of a thread that has ended or is yet to be created.
    const std::optional<pthread_t>& id() const { return id_; }

  private:
    const SuspensionDeferred deferred_;
    const Thread& thread_;
    std::optional<pthread_t> id_;
};

Thread::Thread(ULONG_PTR id)
    : Handle(1),
      tid(id),
      state(THREAD_RUNNING),
      lock(PTHREAD_MUTEX_INITIALIZER),
      suspendCount(0),
      idUses(0),
      calls(std::make_unique<CallQueue>()) {}

Thread::~Thread() {
    pthread_mutex_destroy(&lock);
}

DWORD Thread::What() const {
    return HANDLE_KIND_THREAD;
}

void Thread::lockSelf() const {
    pthread_mutex_lock(&lock);
    traiklofox::foundation::noteLockAcquired(LockRank::ThreadState, this);
}

void Thread::unlockSelf() const {
    traiklofox::foundation::noteLockReleased(LockRank::ThreadState, this);
    pthread_mutex_unlock(&lock);
}

// The end of a thread is for ever and for everybody: its event stays set, so that each waiter finds it, and
// it is reported from the state, so that nothing that resets the event can hide it.
Event* Thread::GetSynch(int& signaled) {
    Event* event = synchEvent(/*manualReset=*/TRUE);
    signaled = GetState() == THREAD_FINISHED;  // looked at in the reverse order of `finish`
    return event;
}

DWORD Thread::WaitForHandle(DWORD milliseconds, BOOL alertable) {
    int finished = 0;
    Event* end = GetSynch(finished);
    if (finished) return WAIT_OBJECT_0;
    if (milliseconds == 0) return WAIT_TIMEOUT;
    const DWORD result = end->WaitForHandle(milliseconds, alertable);
    if (result == WAIT_OBJECT_0 && GetState() != THREAD_FINISHED) {
        end->Reset();                                       // somebody called Signal
        if (GetState() == THREAD_FINISHED) (void)Signal();  // and the end came meanwhile, for everybody
    }
    return result;
}

DWORD Thread::WaitForMultipleHandles(DWORD, Handle**, BOOL, DWORD, BOOL) {
    std::fputs("Thread::WaitForMultiple: called without an event!\n", stderr);
    return WAIT_FAILED;
}

// Without the lock, for every wait for a thread and every call queued to one asks.
ThreadState_t Thread::GetState() const {
    return state.load();
}

void Thread::SetState(ThreadState_t newState) {
    const StateGuard guard(*this);
    state = newState;
}

ULONG_PTR Thread::GetTid() const {
    const StateGuard guard(*this);
    return tid;
}

void Thread::SetTid(ULONG_PTR newTid) {
    const StateGuard guard(*this);
    tid = newTid;
}

LONG Thread::Suspend() {
    {
        const StateGuard guard(*this);
        if (state == THREAD_FINISHED) return -1;
        if (suspendCount++ > 0) return suspendCount - 1;
        if (!pthread_equal(tid, pthread_self())) {
            if (guard.interrupt(traiklofox::kernel::suspendSignal())) return 0;
            --suspendCount;
            return -1;
        }
    }
    // The calling thread stops inside this call, so it must not hold the lock that `Resume` takes.
    if (pthread_kill(pthread_self(), traiklofox::kernel::suspendSignal()) == 0) return 0;
    const StateGuard guard(*this);
    --suspendCount;
    return -1;
}

LONG Thread::Resume() {
    const StateGuard guard(*this);
    if (state == THREAD_FINISHED) return -1;
    if (suspendCount == 0) return 0;
    if (--suspendCount > 0) return suspendCount + 1;
    if (guard.interrupt(traiklofox::kernel::resumeSignal())) return 1;
    ++suspendCount;
    return -1;
}

void Thread::QueueAPC(PAPCFUNC function, void* a, void* b, void* c) {
    (void)ThreadLife::queue(*this, {function, a, b, c});
}

bool ThreadLife::queue(Thread& thread, const QueuedCall& call) {
    if (thread.GetState() == THREAD_FINISHED) return false;
    CallQueue& calls = callsOf(thread);
    const CallQueue::Push pushed = calls.push(call, isCurrent(thread));
    if (pushed.wake == CallQueue::Wake::Signal) {
        const Thread::StateGuard guard(thread);
        if (thread.state == THREAD_FINISHED || !guard.interrupt(callSignal())) calls.signalArrived();
    }
    CallQueue::endSleep(pushed);
    return true;
}

BOOL Thread::CheckAPC() {
    traiklofox::kernel::QueuedCall call{};
    if (!calls->pop(call, /*first=*/true)) return 0;
    do {
        if (call.function != nullptr) call.function(call.a, call.b, call.c);
    } while (calls->pop(call, /*first=*/false));
    return 1;
}

int Thread::GetPriority() const {
    const IdUse use(*this);
    if (!use.id()) return ESRCH;
    int policy = 0;
    sched_param parameters{};
    const int error = pthread_getschedparam(*use.id(), &policy, &parameters);
    return error != 0 ? error : parameters.sched_priority;
}

int Thread::SetPriority(int priority) {
    const IdUse use(*this);
    if (!use.id()) return ESRCH;
    int policy = 0;
    sched_param parameters{};
    const int error = pthread_getschedparam(*use.id(), &policy, &parameters);
    if (error != 0) return error;
    parameters.sched_priority = priority;
    return pthread_setschedparam(*use.id(), policy, &parameters);
}

void ThreadLife::started(Thread& thread, pthread_t id) {
    const Thread::StateGuard guard(thread);
    if (thread.state == THREAD_RUNNING) thread.tid = id;
}

// A suspension whose signal is under way takes effect first: nobody could resume an ended thread.
bool ThreadLife::finishUnlessSuspended(Thread& thread) {
    const SuspensionDeferred suspensionDeferred;
    const Thread::StateGuard guard(thread);
    if (thread.suspendCount > 0 && !suspensionDeferred.wasBlocked()) return false;
    thread.state = THREAD_FINISHED;
    thread.tid = 0;
    return true;
}

void ThreadLife::finish(Thread& thread) {
    while (!finishUnlessSuspended(thread)) continue;  // the signal arrives between two attempts
    while (const int uses = thread.idUses.load(std::memory_order_acquire))
        thread.idUses.wait(uses, std::memory_order_acquire);
    thread.Signal();
}
