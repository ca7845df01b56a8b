// semaphore.cpp: the counting semaphore.
//
// `state` is one atomic word: the count in its lower bits, and kWatched while any thread is in the list of waiters,
// which the lock guards.
//
// No release is lost: all changes of `state` are read-modify-writes, so they have one order. A waiter enters the list,
// which sets kWatched, and then looks at the count. A release that takes the short way has seen kWatched clear in the
// very step that added to the count; so that step precedes the waiter's, and the waiter finds what it added (or
// somebody else has taken it, as he may). Any other release takes the lock, and off the list as many waiters as there
// is to take, which it wakes. Each of those takes, or enters the list again and looks, or leaves and hands its wake-up
// to the next in the list.
//
// A semaphore may be closed as soon as a wait for it returned, even while the release that ended the wait is still
// running: the short way never touches it after its one step, and the long way never after the unlock that the
// destructor waits for. What it still wakes then are threads, of each of which it has a reference.

#include <traiklofox/semaphores.h>

#include <cerrno>

#include "foundation/lock_rank.h"
#include "kernel/blocked_wait.h"
#include "kernel/call_queue.h"
#include "kernel/fork_generation.h"
#include "kernel/handle_arguments.h"
#include "kernel/parker.h"
#include "kernel/thread_life.h"

using traiklofox::foundation::LockRank;
using traiklofox::kernel::AlertableSleep;
using traiklofox::kernel::ForkGeneration;
using traiklofox::kernel::handleAs;
using traiklofox::kernel::ParkedThreads;
using traiklofox::kernel::Parker;
using traiklofox::kernel::SleepPlace;
using traiklofox::kernel::ThreadLife;
using traiklofox::kernel::WakeList;

/// Holds the lock for a scope.
class TRAIKLOFOX_SCOPED_CAPABILITY Semaphore::Section {
  public:
    explicit Section(Semaphore& semaphore) TRAIKLOFOX_ACQUIRE(semaphore) TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS
        : semaphore_(semaphore) {
        ForkGeneration::enter(semaphore.waiters->generation(), [&]() TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
            semaphore.lock = PTHREAD_MUTEX_INITIALIZER;
            semaphore.waiters->clear();
            semaphore.noteWaiters();
        });
        pthread_mutex_lock(&semaphore_.lock);
        traiklofox::foundation::noteLockAcquired(LockRank::Semaphore, &semaphore_.lock);
    }
    ~Section() TRAIKLOFOX_RELEASE() TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
        traiklofox::foundation::noteLockReleased(LockRank::Semaphore, &semaphore_.lock);
        pthread_mutex_unlock(&semaphore_.lock);
    }
    Section(const Section&) = delete;
    Section& operator=(const Section&) = delete;

    /// Takes waiters off the list for so many, as far as there is room. Returns for how many more there are waiters.
    LONG chooseTakers(LONG takers, WakeList& woken) const TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
        ParkedThreads& list = *semaphore_.waiters;
        for (; takers > 0 && !list.isEmpty() && !woken.isFull(); --takers) woken.add(list.takeFirst());
        semaphore_.noteWaiters();
        return list.isEmpty() ? 0 : takers;
    }

  private:
    Semaphore& semaphore_;
};

/// The calling thread as a waiter, for a scope, which also ends when the thread is cancelled.
class Semaphore::Waiter {
  public:
    explicit Waiter(Semaphore& semaphore)
        : semaphore_(semaphore),
          thread_(ThreadLife::current()),
          parker_(ThreadLife::callsOf(thread_).parker()) {}
    ~Waiter() {
        if (wasWokenToTake_) return;
        WakeList woken;
        const Section section(semaphore_);
        if (parker_.isListed()) {
            semaphore_.waiters->remove(parker_);
        } else if (!semaphore_.waiters->isEmpty() &&
                   countIn(semaphore_.state.load(std::memory_order_relaxed)) > 0) {
            woken.add(semaphore_.waiters->takeFirst());
        }
        semaphore_.noteWaiters();
    }
    Waiter(const Waiter&) = delete;
    Waiter& operator=(const Waiter&) = delete;

    void enterList() {
        if (parker_.isListed()) return;
        const Section section(semaphore_);
        semaphore_.waiters->append(parker_, thread_);
        semaphore_.noteWaiters();
    }
    int park(const timespec* deadline) { return parker_.park(deadline); }
    /// Takes what a release has woken the thread for, if it has.
    bool takeWoken() { return wasWokenToTake_ = !parker_.isListed() && semaphore_.tryTake(); }
    SleepPlace place() const { return SleepPlace::in(thread_, parker_); }

  private:
    Semaphore& semaphore_;
    Thread& thread_;
    Parker& parker_;
    bool wasWokenToTake_ = false;
};

Semaphore::Semaphore(LONG initialCount, LONG greatestCount, const char* givenName)
    : Handle(1),
      state(static_cast<DWORD>(initialCount)),
      maxCount(greatestCount),
      lock(PTHREAD_MUTEX_INITIALIZER),
      waiters(std::make_unique<ParkedThreads>()),
      name(givenName != nullptr ? givenName : "") {}

Semaphore::~Semaphore() {
    { const Section waitForTheLastRelease(*this); }
    pthread_mutex_destroy(&lock);
}

DWORD Semaphore::What() const {
    return HANDLE_KIND_SEMAPHORE;
}

/// Keeps kWatched in step with the list.
void Semaphore::noteWaiters() {
    if (waiters->isEmpty()) {
        state.fetch_and(~kWatched, std::memory_order_acq_rel);
    } else {
        state.fetch_or(kWatched, std::memory_order_acq_rel);
    }
}

DWORD Semaphore::WaitForHandle(DWORD milliseconds, BOOL alertable) {
    if (tryTake()) [[likely]]
        return WAIT_OBJECT_0;
    return waitToTake(milliseconds, alertable);
}

// Out of line, as releaseToWaiters is: it takes over its caller's arguments where they are, which costs the short way
// no register to save.
[[gnu::noinline]] DWORD Semaphore::waitToTake(DWORD milliseconds, BOOL alertable) {
    return traiklofox::kernel::waitWithin(
        milliseconds, alertable,
        [this](const timespec* deadline, BOOL alerts) { return block(deadline, alerts); });
}

DWORD Semaphore::block(const timespec* deadline, BOOL alertable) {
    Waiter waiter(*this);
    for (;;) {
        waiter.enterList();
        if (tryTake()) return WAIT_OBJECT_0;
        int error;
        if (alertable) {
            const AlertableSleep sleep(waiter.place());
            if (sleep.callsPending()) return WAIT_IO_COMPLETION;
            error = waiter.park(deadline);
        } else {
            error = waiter.park(deadline);
        }
        if (error == ETIMEDOUT) return WAIT_TIMEOUT;
        if (waiter.takeWoken()) return WAIT_OBJECT_0;
    }
}

BOOL Semaphore::Release(LONG amount, LONG* previous) {
    if (amount < 0) return 0;
    DWORD seen = state.load(std::memory_order_relaxed);
    do {
        if (amount > maxCount - countIn(seen)) return 0;
        if (seen & kWatched) [[unlikely]]
            return releaseToWaiters(amount, previous);
    } while (!state.compare_exchange_weak(seen, seen + static_cast<DWORD>(amount), std::memory_order_acq_rel,
                                          std::memory_order_relaxed));
    if (previous != nullptr) *previous = countIn(seen);
    return 1;
}

[[gnu::noinline]] BOOL Semaphore::releaseToWaiters(LONG amount, LONG* previous) {
    LONG takers = 0;
    {
        WakeList woken;
        const Section section(*this);
        DWORD seen = state.load(std::memory_order_relaxed);
        do {
            if (amount > maxCount - countIn(seen)) return 0;
        } while (!state.compare_exchange_weak(seen, seen + static_cast<DWORD>(amount),
                                              std::memory_order_acq_rel, std::memory_order_relaxed));
        if (previous != nullptr) *previous = countIn(seen);
        takers = section.chooseTakers(countIn(seen) + amount, woken);
        if (takers == 0) return 1;
        IncRefCount();  // those who are woken now may close it
    }
    while (takers > 0) {
        WakeList woken;
        const Section section(*this);
        takers = section.chooseTakers(takers, woken);
    }
    DecRefCount();
    return 1;
}

Handle* CreateSemaphore(_SECURITY_ATTRIBUTES*, LONG initialCount, LONG maxCount, const char* name) {
    if (initialCount < 0 || initialCount > maxCount) return nullptr;
    return new Semaphore(initialCount, maxCount, name);
}

[[gnu::flatten]] BOOL ReleaseSemaphore(Handle* handle, LONG count, LONG* previous) {
    if (count < 1) return 0;
    auto* semaphore = handleAs<Semaphore>(handle, HANDLE_KIND_SEMAPHORE);
    return semaphore != nullptr ? semaphore->Release(count, previous) : 0;
}
