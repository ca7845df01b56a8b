// timer.cpp: the queued timers, and the thread that waits for them.
//
// `Callout` is a list through the timers themselves, guarded by `RequestLock`: so a timer in it is never a destroyed
// one, because the destructor takes it out first, and the timer thread touches timers under the lock alone. What it
// takes away to queue without the lock is the call, and the reference to the owner that the queued timer had.
//
// The timer thread waits for the first timer's due time, under no claim to that timer: when the time has passed, it
// looks who is first now, and due by then. So cancelling and setting again need only change the list.

#include <traiklofox/clocks.h>
#include <traiklofox/timers.h>

#include <cerrno>
#include <new>
#include <utility>

#include "foundation/deadline.h"
#include "foundation/mutex.h"
#include "foundation/sys.h"
#include "kernel/call_queue.h"
#include "kernel/handle_arguments.h"
#include "kernel/signals.h"
#include "kernel/thread_life.h"
#include "kernel/timers_at_fork.h"

using traiklofox::foundation::LockGuard;
using traiklofox::foundation::LockRank;
using traiklofox::kernel::handleAs;
using traiklofox::kernel::SignalsBlocked;
using traiklofox::kernel::ThreadLife;

namespace {

constinit traiklofox::foundation::Mutex<LockRank::Timers> RequestLock;
constinit pthread_cond_t RequestQueue = PTHREAD_COND_INITIALIZER;  // another timer is the first

struct {
    Timer* first = nullptr;
    Timer* last = nullptr;
} constinit Callout TRAIKLOFOX_GUARDED_BY(RequestLock);
constinit bool threadRuns TRAIKLOFOX_GUARDED_BY(RequestLock) = false;

// Of calls that wait on the owner of a periodic timer; far more than a thread that ever runs them has.
constexpr size_t kMostCalls = 10'000;
constexpr DWORD kPauseMs = 10;  // before a timer whose owner takes no calls looks again

bool isLater(const timespec& left, const timespec& right) {
    return left.tv_sec != right.tv_sec ? left.tv_sec > right.tv_sec : left.tv_nsec > right.tv_nsec;
}

}  // namespace

/// What becomes of a due timer.
struct Timer::Expiry {
    Thread* owner = nullptr;  // with a reference
    PTIMERAPCROUTINE routine = nullptr;
    void* argument = nullptr;
    timespec due{};

    /// False: there was no memory for the call.
    bool queueCall() const {
        try {
            owner->QueueAPC(routine, argument, reinterpret_cast<void*>(due.tv_sec),
                            reinterpret_cast<void*>(due.tv_nsec));
            return true;
        } catch (const std::bad_alloc&) {
            return false;
        }
    }
};

Timer::Timer(BOOL resetsManually, const char* givenName)
    : Handle(1),
      state(Idle),
      manualReset(resetsManually),
      due{},
      period(0),
      ownerThread(nullptr),
      name(givenName != nullptr ? givenName : ""),
      routine(nullptr),
      argument(nullptr),
      previous(nullptr),
      next(nullptr) {
    (void)StartThread();  // `SetTimer` tries again
}

Timer::~Timer() {
    Cancel(this);
}

DWORD Timer::What() const {
    return HANDLE_KIND_TIMER;
}

BOOL Timer::StartThread() {
    {
        const LockGuard guard(RequestLock);
        if (std::exchange(threadRuns, true)) return 1;
    }
    const SignalsBlocked inherited;  // the application's signals are for its own threads
    Handle* thread = CreateThread(nullptr, 0, TimerThread, nullptr, 0, nullptr);
    if (CloseHandle(thread)) return 1;
    const LockGuard guard(RequestLock);
    threadRuns = false;
    return 0;
}

BOOL Timer::SetTimer(const timespec* dueTime, LONG newPeriod, PTIMERAPCROUTINE newRoutine,
                     void* newArgument) {
    constexpr long kNanosecondsPerSecond = 1'000'000'000;
    if (dueTime == nullptr || dueTime->tv_nsec < 0 || dueTime->tv_nsec >= kNanosecondsPerSecond) {
        errno = EINVAL;
        return 0;
    }
    if (!StartThread()) return 0;
    Thread* owner = &ThreadLife::current();
    owner->IncRefCount();
    {
        const LockGuard guard(RequestLock);
        if (state == Queued) unlink();
        due = *dueTime;
        period = newPeriod;
        routine = newRoutine;
        argument = newArgument;
        std::swap(owner, ownerThread);
        if (Queue()) pthread_cond_signal(&RequestQueue);
    }
    if (owner != nullptr) owner->DecRefCount();  // the former one
    return 1;
}

BOOL Timer::Cancel(Timer* timer) {
    if (timer == nullptr) return 0;
    Thread* owner = nullptr;
    {
        const LockGuard guard(RequestLock);
        if (timer->state != Queued) return 0;
        timer->unlink();
        timer->state = Idle;
        owner = std::exchange(timer->ownerThread, nullptr);
    }
    owner->DecRefCount();
    return 1;
}

/// Behind the last that is due in the same second or before; found from the end, because most timers are set for
/// later than those that wait. True when it is the first now.
bool Timer::Queue() TRAIKLOFOX_REQUIRES(RequestLock) {
    state = Queued;
    previous = Callout.last;
    while (previous != nullptr && previous->InsertHere(due)) previous = previous->previous;
    next = previous != nullptr ? previous->next : Callout.first;
    (previous != nullptr ? previous->next : Callout.first) = this;
    (next != nullptr ? next->previous : Callout.last) = this;
    return previous == nullptr;
}

void Timer::unlink() TRAIKLOFOX_REQUIRES(RequestLock) {
    (previous != nullptr ? previous->next : Callout.first) = next;
    (next != nullptr ? next->previous : Callout.last) = previous;
}

bool Timer::ownerTakesCalls() const TRAIKLOFOX_REQUIRES(RequestLock) {
    return ownerThread->GetState() != THREAD_FINISHED &&
           ThreadLife::callsOf(*ownerThread).size() < kMostCalls;
}

/// Takes the timer, which is due, off the list, and queues a periodic one for its next time.
Timer::Expiry Timer::expire() TRAIKLOFOX_REQUIRES(RequestLock) {
    Expiry expiry{ownerThread, routine, argument, due};
    unlink();
    state = manualReset ? Fired : Idle;
    if (period == 0) {
        ownerThread = nullptr;
        return expiry;
    }
    FixTimeout(due, period);
    if (ownerTakesCalls()) {
        ownerThread->IncRefCount();
    } else {
        expiry.owner = nullptr;
        const timespec soonest = traiklofox::foundation::deadlineAfter(traiklofox::sys::now(), kPauseMs);
        if (isLater(soonest, due)) due = soonest;
    }
    (void)Queue();
    return expiry;
}

Timer::Expiry Timer::awaitExpiry() {
    const LockGuard guard(RequestLock);
    for (;;) {
        if (Callout.first == nullptr) {
            pthread_cond_wait(&RequestQueue, RequestLock.native());
            continue;
        }
        const timespec deadline = Callout.first->due;
        if (pthread_cond_timedwait(&RequestQueue, RequestLock.native(), &deadline) != ETIMEDOUT) continue;
        if (Callout.first != nullptr && !isLater(Callout.first->due, deadline))
            return Callout.first->expire();
    }
}

DWORD Timer::TimerThread(void*) {
    for (;;) {
        const Expiry expiry = awaitExpiry();
        if (expiry.owner == nullptr) continue;
        while (!expiry.queueCall()) SleepEx(kPauseMs, FALSE);
        expiry.owner->DecRefCount();
    }
}

// The natives, unchecked: a thread may fork inside a section of its own events.
void traiklofox::kernel::TimersAtFork::lock() TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
    pthread_mutex_lock(RequestLock.native());
}

void traiklofox::kernel::TimersAtFork::unlock() TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
    pthread_mutex_unlock(RequestLock.native());
}

// The owners' references are left to the threads that the child does not have.
void traiklofox::kernel::TimersAtFork::forgetInChild() TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
    for (Timer* timer = Callout.first; timer != nullptr; timer = timer->next) {
        timer->state = Timer::Idle;
        timer->ownerThread = nullptr;
    }
    Callout = {};
    threadRuns = false;
    RequestQueue = PTHREAD_COND_INITIALIZER;  // the thread that may have slept on it is not here
    pthread_mutex_unlock(RequestLock.native());
}

Handle* CreateWaitableTimer(_SECURITY_ATTRIBUTES*, BOOL manualReset, const char* name) {
    return new Timer(manualReset, name);
}

BOOL SetWaitableTimer(Handle* handle, const timespec* dueTime, LONG period, PTIMERAPCROUTINE routine,
                      void* argument, BOOL) {
    if (auto* timer = handleAs<Timer>(handle, HANDLE_KIND_TIMER))
        return timer->SetTimer(dueTime, period, routine, argument);
    errno = EINVAL;
    return 0;
}

BOOL CancelWaitableTimer(Handle* handle) {
    return Timer::Cancel(handleAs<Timer>(handle, HANDLE_KIND_TIMER));
}
