// event.cpp: one event: its state, single waits, and the posting to multiple waits.
//
// `state` is one atomic word: kSignaled, and kWatched while any thread is blocked on the event or any
// multiple wait includes it. The event's own lock guards the waiters and the registered waits, and kWatched
// changes under it.
//
// No wake-up is lost: all changes of `state` are read-modify-writes, so they have one order. A waiter stores
// kWatched and then looks at kSignaled. A `Set` that takes the short way has seen kWatched clear in the very
// step that stored kSignaled; so that step precedes the waiter's, and the waiter finds the signal (or
// somebody else has consumed it, as he may). Any other `Set` takes the lock, under which a waiter either has
// yet to look or sleeps and is woken.
//
// No producer's data is missed: a `Set` that finds the event signalled still writes the word back. A consumer
// that later takes the signal reads that write, or a later one, and so sees all that the producer did before
// `Set`. A plain load would not do: producer and consumer could each miss the other's store.
//
// An event may be closed as soon as a wait for it returned, even while the `Set` that woke the wait is still
// running: the short way never touches the event after its one step, and the long way never after the unlock that
// the destructor waits for. What it still wakes then are multiple waits, of each of which it has a reference.

#include <traiklofox/critical_section.h>
#include <traiklofox/events.h>
#include <traiklofox/threads.h>
#include <traiklofox/wait.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <new>

#include "foundation/lock_rank.h"
#include "foundation/on_exit.h"
#include "kernel/blocked_wait.h"
#include "kernel/call_queue.h"
#include "kernel/event_guard.h"
#include "kernel/fork_generation.h"
#include "kernel/handle_arguments.h"
#include "kernel/hooks.h"
#include "kernel/multi_wait_entry.h"

using traiklofox::foundation::LockRank;
using traiklofox::kernel::AlertableSleep;
using traiklofox::kernel::EventGuard;
using traiklofox::kernel::ForkGeneration;
using traiklofox::kernel::MultiWaitEntry;
using traiklofox::kernel::PostedWaits;
using traiklofox::kernel::WaiterCount;

namespace {

constexpr int kSignaled = 1;
constexpr int kWatched = 2;

char* copyOfName(const char* name) {
    if (name == nullptr) return nullptr;
    char* copy = strdup(name);
    if (copy == nullptr) throw std::bad_alloc();
    return copy;
}

}  // namespace

namespace traiklofox::kernel {

EventGuard::EventGuard(Event& event) : event_(event) {
    event_.lockSelf();
}

EventGuard::~EventGuard() {
    event_.unlockSelf();
}

/// Counts the calling thread as blocked on the event for a scope; the scope also ends when the thread is
/// cancelled.
class WaiterCount {
  public:
    explicit WaiterCount(Event& event) TRAIKLOFOX_REQUIRES(event) : event_(event) {
        ++event_.waiters;
        event_.noteWatchers();
    }
    ~WaiterCount()
        TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {  // the lock that the constructor required is still held
        --event_.waiters;
        event_.noteWatchers();
        if (event_.waiters == 0 && event_.resetWaiting > 0) pthread_cond_broadcast(&event_.resetCond);
    }
    WaiterCount(const WaiterCount&) = delete;
    WaiterCount& operator=(const WaiterCount&) = delete;

  private:
    Event& event_;
};

/// The multiple waits that a `Set` has posted to. Its destructor wakes them, once the event's lock is free: a thread
/// that woke sooner would only wait for that lock.
class PostedWaits {
  public:
    PostedWaits() = default;
    ~PostedWaits() {
        for (size_t i = 0; i < count_; ++i) {
            waits_[i]->event.Set();
            waits_[i]->DecRefCount();
        }
    }
    PostedWaits(const PostedWaits&) = delete;
    PostedWaits& operator=(const PostedWaits&) = delete;

    void post(const MultiWaitEntry& entry) {
        if (!entry.owner->post(entry.index)) return;
        if (count_ == kRoom) {
            entry.owner->event.Set();
            return;
        }
        entry.owner->IncRefCount();
        waits_[count_++] = entry.owner;
    }

  private:
    static constexpr size_t kRoom = 8;  // more are woken under the lock
    std::array<MultiEvent*, kRoom> waits_;
    size_t count_ = 0;
};

}  // namespace traiklofox::kernel

_critsection Event::EventLock{};

Event::Event(LONG initialData, BOOL resetsManually, BOOL initialState, const char* givenName)
    : Event(initialData, resetsManually, initialState, givenName, /*isEmbedded=*/false) {}

Event::Event(Embedded) : Event(/*initialData=*/-1, FALSE, FALSE, nullptr, /*isEmbedded=*/true) {}

Event::Event(LONG initialData, BOOL resetsManually, BOOL initialState, const char* givenName, bool isEmbedded)
    : Handle(1),
      data(initialData),
      lastData(initialData),
      dataOwner(0),
      lastRev(0),
      state(initialState != 0 ? kSignaled : 0),
      manualReset(resetsManually != 0),
      waiters(0),
      lock(PTHREAD_MUTEX_INITIALIZER),
      cond(PTHREAD_COND_INITIALIZER),
      name(copyOfName(givenName)),
      resetWaiting(0),
      resetCond(PTHREAD_COND_INITIALIZER),
      multiWaiters(nullptr),
      embedded(isEmbedded),
      generation(ForkGeneration::current()) {}

Event::~Event() {
    { const EventGuard waitForTheLastSet(*this); }
    const LONG tied = GetEventData();
    if (tied != -1) traiklofox::kernel::withdrawRegistryNotification(tied, this);
    std::free(name);
    pthread_cond_destroy(&resetCond);
    pthread_cond_destroy(&cond);
    pthread_mutex_destroy(&lock);
}

DWORD Event::What() const {
    return HANDLE_KIND_EVENT;
}

void Event::lockSelf() {
    ForkGeneration::enter(generation, [this]() TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
        lock = PTHREAD_MUTEX_INITIALIZER;
        cond = resetCond = PTHREAD_COND_INITIALIZER;
        waiters = resetWaiting = 0;
        multiWaiters = nullptr;
        noteWatchers();
    });
    pthread_mutex_lock(&lock);
    traiklofox::foundation::noteLockAcquired(embedded ? LockRank::EmbeddedEvent : LockRank::Event, this);
}

void Event::unlockSelf() {
    traiklofox::foundation::noteLockReleased(embedded ? LockRank::EmbeddedEvent : LockRank::Event, this);
    pthread_mutex_unlock(&lock);
}

// The order of locks is about the outermost entry: the section is recursive.
void Event::Lock() {
    EnterCriticalSection(&EventLock);
    if (EventLock.count == 1)
        traiklofox::foundation::noteLockAcquired(LockRank::EventBookkeeping, &EventLock);
}

void Event::Unlock() {
    if (EventLock.count == 1)
        traiklofox::foundation::noteLockReleased(LockRank::EventBookkeeping, &EventLock);
    LeaveCriticalSection(&EventLock);
}

bool Event::consume() {
    int seen = state.load(std::memory_order_acquire);
    if (manualReset) return seen & kSignaled;
    while (seen & kSignaled) {
        if (state.compare_exchange_weak(seen, seen & ~kSignaled, std::memory_order_acq_rel,
                                        std::memory_order_acquire))
            return true;
    }
    return false;
}

BOOL Event::Set() {
    int seen = state.load(std::memory_order_relaxed);
    while ((seen & kSignaled) || !(seen & kWatched)) {
        if (state.compare_exchange_weak(seen, seen | kSignaled, std::memory_order_acq_rel,
                                        std::memory_order_relaxed))
            return 1;
    }

    PostedWaits posted;
    const EventGuard guard(*this);
    if (!(state.fetch_or(kSignaled, std::memory_order_acq_rel) & kSignaled)) {
        for (MultiWaitEntry* entry = multiWaiters; entry != nullptr; entry = entry->next) posted.post(*entry);
        if (waiters > 0) (void)(manualReset ? pthread_cond_broadcast(&cond) : pthread_cond_signal(&cond));
    }
    return 1;
}

BOOL Event::Reset() {
    const EventGuard guard(*this);
    if (manualReset && (state.load(std::memory_order_acquire) & kSignaled)) {
        ++resetWaiting;
        const auto announced =
            traiklofox::foundation::onExit([this]() TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS { --resetWaiting; });
        // Once another has withdrawn the signal, who waits is not being released.
        while (waiters > 0 && EventIsSignaled()) pthread_cond_wait(&resetCond, &lock);
    }
    state.fetch_and(~kSignaled, std::memory_order_acq_rel);
    if (resetWaiting > 0) pthread_cond_broadcast(&resetCond);
    return 1;
}

BOOL Event::Pulse() {
    return Set() != 0 ? 0 : Reset();
}

Event* Event::GetSynch(int& signaled) {
    signaled = EventIsSignaled();
    return this;
}

DWORD Event::WaitForHandle(DWORD milliseconds, BOOL alertable) {
    if (consume()) return WAIT_OBJECT_0;
    return traiklofox::kernel::waitWithin(
        milliseconds, alertable,
        [this](const timespec* deadline, BOOL alerts) { return waitUntil(*this, deadline, alerts); });
}

/// Waits until `deadline` (null: without limit). `keepAlive` is the object that holds this event: the event
/// itself, or the MultiEvent around it. WAIT_IO_COMPLETION: calls are pending, which the caller runs once it
/// has left the wait, for they may wait themselves. Only a wait with a deadline ends so.
DWORD Event::waitUntil(Handle& keepAlive, const timespec* deadline, BOOL alertable) {
    const EventGuard guard(*this);
    return sleepLocked(keepAlive, deadline, alertable);
}

DWORD Event::sleepLocked(Handle& keepAlive, const timespec* deadline, BOOL alertable) {
    const WaiterCount counted(*this);
    while (!consume()) {
        if (deadline == nullptr) {
            pthread_cond_wait(&cond, &lock);
            continue;
        }
        int error;
        if (alertable) {
            const AlertableSleep sleep({&keepAlive, this, wakeSleepers});
            if (sleep.callsPending()) return WAIT_IO_COMPLETION;
            error = pthread_cond_timedwait(&cond, &lock, deadline);
        } else {
            error = pthread_cond_timedwait(&cond, &lock, deadline);
        }
        if (error == ETIMEDOUT) return consume() ? WAIT_OBJECT_0 : WAIT_TIMEOUT;
    }
    return WAIT_OBJECT_0;
}

/// Keeps kWatched in step with the waiters and the registered waits.
void Event::noteWatchers() {
    if (waiters > 0 || multiWaiters != nullptr) {
        state.fetch_or(kWatched, std::memory_order_acq_rel);
    } else {
        state.fetch_and(~kWatched, std::memory_order_acq_rel);
    }
}

void Event::enroll(MultiWaitEntry& entry) {
    MultiWaitEntry** link = &multiWaiters;
    MultiWaitEntry* previous = nullptr;
    while (*link != nullptr && (*link)->owner <= entry.owner) {
        previous = *link;
        link = &previous->next;
    }
    entry.previous = previous;
    entry.next = *link;
    if (entry.next != nullptr) entry.next->previous = &entry;
    *link = &entry;
    noteWatchers();
}

void Event::withdraw(MultiWaitEntry& entry) {
    (entry.previous != nullptr ? entry.previous->next : multiWaiters) = entry.next;
    if (entry.next != nullptr) entry.next->previous = entry.previous;
    noteWatchers();
}

/// For whoever queues a call to a thread that sleeps here.
void Event::wakeSleepers(void* event) {
    auto& self = *static_cast<Event*>(event);
    const EventGuard guard(self);
    pthread_cond_broadcast(&self.cond);
}

BOOL Event::SetEventData(LONG newData) {
    bool detached = false;
    {
        const EventGuard guard(*this);
        if (newData == -1) {
            detached = useUpData();
            if (!detached) return 0;
        } else {
            if (dataOwner == 0) IncRefCount();  // data given to the constructor hold no reference
            dataOwner = pthread_self();
            data.store(newData, std::memory_order_release);
        }
    }
    if (detached) DecRefCount();
    return 1;
}

/// Detaches the data if the calling thread owns it; true when the caller is to drop the attachment's
/// reference.
bool Event::useUpData() {
    if (GetEventData() == -1 || dataOwner != pthread_self()) return false;
    dataOwner = 0;
    data.store(-1, std::memory_order_release);
    return true;
}

void Event::RevStamp(DWORD revision, BOOL copyData) {
    if (copyData) lastData.store(GetEventData(), std::memory_order_release);
    lastRev.store(revision, std::memory_order_release);
}

Handle* EventCreate(_SECURITY_ATTRIBUTES*, BOOL manualReset, BOOL initialState, const char* name) {
    return new Event(/*initialData=*/-1, manualReset, initialState, name);
}

Handle* CreateEvent(_SECURITY_ATTRIBUTES* attributes, BOOL manualReset, BOOL initialState, const char* name) {
    return EventCreate(attributes, manualReset, initialState, name);
}

BOOL EventSet(Handle* handle) {
    return traiklofox::kernel::isNone(handle) ? 0 : handle->Set();
}

BOOL SetEvent(Handle* handle) {
    return EventSet(handle);
}

BOOL EventReset(Handle* handle) {
    return traiklofox::kernel::isNone(handle) ? 0 : handle->Reset();
}

BOOL ResetEvent(Handle* handle) {
    return EventReset(handle);
}

BOOL EventPulse(Handle* handle) {
    return traiklofox::kernel::isNone(handle) ? 0 : handle->Pulse();
}

BOOL PulseEvent(Handle* handle) {
    return EventPulse(handle);
}
