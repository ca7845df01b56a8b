// multi_event.cpp: waits on several events.
//
// A wait copies its array and clears its index, then takes each event's lock once: in one section it registers
// and then looks for the signal, in this order, because a `Set` that takes the short way holds no lock: it
// either sees that the event is watched, or its signal is there to be seen. `Event::Set` on the long way stores
// the signal and posts its index to the registered waits in one section of the same lock, and the wait leaves each
// event under it again. So an event is either found signalled or posts, and nothing posts into a later wait.
//
// Whoever posts the first index wakes the wait, after it has let the event's lock go. So a wake-up may come when
// the wait is over, and be found by a later one: a wait that wakes with no index posted sleeps on.

#include <traiklofox/events.h>
#include <traiklofox/threads.h>
#include <traiklofox/wait.h>

#include "foundation/on_exit.h"
#include "kernel/blocked_wait.h"
#include "kernel/event_guard.h"
#include "kernel/handle_arguments.h"
#include "kernel/multi_wait_entry.h"

using traiklofox::kernel::EventGuard;
using traiklofox::kernel::isNone;
using traiklofox::kernel::MultiWaitEntry;
using traiklofox::kernel::waitWithin;

namespace {

constexpr DWORD kAllEnrolled = WAIT_FAILED;

}  // namespace

MultiEvent::MultiEvent(DWORD places)
    : Handle(1),
      event(Event::Embedded{}),
      capacity(places),
      signaledIndex(-1),
      entries(std::make_unique<MultiWaitEntry[]>(places)),
      enrolled(0),
      count(0) {}

MultiEvent::~MultiEvent() = default;

DWORD MultiEvent::What() const {
    return HANDLE_KIND_MULTI_EVENT;
}

/// True when it is the wait's first, which the caller then wakes.
bool MultiEvent::post(LONG index) {
    LONG none = -1;
    return signaledIndex.compare_exchange_strong(none, index, std::memory_order_relaxed);
}

// Any thread may call this: the entry is looked for where the event's lock keeps it, not in the waiting thread's array.
BOOL MultiEvent::PostEvent(Event* posting) {
    if (std::atomic_ref(count).load(std::memory_order_relaxed) == 0) return 0;
    if (posting == nullptr) return 1;
    const EventGuard guard(*posting);
    const MultiWaitEntry* entry = posting->multiWaiters;
    while (entry != nullptr && entry->owner != this) entry = entry->next;
    if (entry != nullptr && post(entry->index)) event.Set();
    return 1;
}

void MultiEvent::prepare(DWORD newCount, Handle** handles) {
    if (capacity < newCount) {
        entries = std::make_unique<MultiWaitEntry[]>(newCount);
        capacity = newCount;
    }
    for (DWORD i = 0; i < newCount; ++i) {
        entries[i].event = isNone(handles[i]) ? nullptr : static_cast<Event*>(handles[i]);
        entries[i].owner = this;
        entries[i].index = static_cast<LONG>(i);
    }
    std::atomic_ref(count).store(newCount, std::memory_order_relaxed);
    enrolled = 0;
    signaledIndex.store(-1, std::memory_order_relaxed);
}

/// Registers with the events in order. Returns kAllEnrolled, or at the first signal found its index (a wait
/// for any; the signal is consumed), or 0 when every event is signalled (a wait for all; nothing is
/// consumed).
DWORD MultiEvent::enrollAll(BOOL waitAll) {
    DWORD signaled = 0;
    for (DWORD i = 0; i < count; ++i) {
        MultiWaitEntry& entry = entries[i];
        if (entry.event == nullptr) continue;
        const EventGuard guard(*entry.event);
        entry.event->IncRefCount();
        entry.event->enroll(entry);
        enrolled = i + 1;
        if (waitAll) {
            if (entry.event->EventIsSignaled()) ++signaled;
        } else if (entry.event->consume()) {
            return i;
        }
    }
    return waitAll && signaled == count ? WAIT_OBJECT_0 : kAllEnrolled;
}

/// Leaves every event that was registered with. After a wait that an event ended, consumes what the wait
/// reports.
void MultiEvent::leaveAll(DWORD result, BOOL waitAll) {
    const DWORD reported = static_cast<DWORD>(signaledIndex.load(std::memory_order_relaxed));
    const bool ended = result == WAIT_OBJECT_0;
    for (DWORD i = 0; i < enrolled; ++i) {
        Event* left = entries[i].event;
        if (left == nullptr) continue;
        bool detached = false;
        {
            const EventGuard guard(*left);
            if (ended && (waitAll || i == reported)) (void)left->consume();
            if (ended && i == reported) detached = left->useUpData();
            left->withdraw(entries[i]);
        }
        if (detached) left->DecRefCount();
        left->DecRefCount();
    }
    enrolled = 0;
    std::atomic_ref(count).store(0, std::memory_order_relaxed);
}

DWORD MultiEvent::sleepUntilPosted(const timespec* deadline, BOOL alertable) {
    for (;;) {
        const DWORD result = event.waitUntil(*this, deadline, alertable);
        if (result != WAIT_OBJECT_0 || signaledIndex.load(std::memory_order_relaxed) != -1) return result;
    }
}

/// The wait's result, or its index; when calls are pending they are left to the caller, once the wait is over.
DWORD MultiEvent::waitForEvents(DWORD newCount, Handle** handles, BOOL waitAll, const timespec* deadline,
                                BOOL alertable) {
    prepare(newCount, handles);
    DWORD result = WAIT_FAILED;  // stays so when the thread is cancelled in its sleep
    const auto leave = traiklofox::foundation::onExit([&] { leaveAll(result, waitAll); });

    const DWORD found = enrollAll(waitAll);
    if (found != kAllEnrolled) return found;

    result = sleepUntilPosted(deadline, alertable);
    if (result != WAIT_OBJECT_0) return result;
    return static_cast<DWORD>(signaledIndex.load(std::memory_order_relaxed));
}

DWORD Event::WaitForMultipleHandles(DWORD count, Handle** handles, BOOL waitAll, DWORD milliseconds,
                                    BOOL alertable) {
    if (count == 0 || handles == nullptr) return WAIT_FAILED;

    // First without registering: most waits of a busy server find something to do.
    DWORD signaledCount = 0;
    for (DWORD i = 0; i < count; ++i) {
        if (isNone(handles[i])) continue;
        auto* event = static_cast<Event*>(handles[i]);
        if (!event->EventIsSignaled()) continue;
        if (waitAll) {
            ++signaledCount;
        } else if (event->consume()) {
            return i;
        }
    }
    if (waitAll && signaledCount == count) return WAIT_OBJECT_0;
    if (milliseconds == 0) return WAIT_TIMEOUT;

    return waitWithin(milliseconds, alertable, [&](const timespec* deadline, BOOL alerts) {
        ThreadContext& context = *GetThreadContext();
        if (context.multiEvent == nullptr) context.multiEvent = new MultiEvent(count);
        return context.multiEvent->waitForEvents(count, handles, waitAll, deadline, alerts);
    });
}
