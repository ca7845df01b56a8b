#pragma once

/// Events: the one primitive that every wait of the library is built on.

#include <traiklofox/handle.h>
#include <traiklofox/thread_safety.h>

#include <memory>

struct _critsection;

class MultiEvent;

namespace traiklofox::kernel {
class EventGuard;
class WaiterCount;
class PostedWaits;
struct MultiWaitEntry;
}  // namespace traiklofox::kernel

/// An event: non-signalled or signalled, auto-reset (a successful wait consumes the signal) or manual-reset.
///
/// Thread safety: any thread holding a reference may call any member. Setting an event that nobody waits for,
/// setting one that is already set, and waiting for one that is set take no lock. The child of a fork may use every
/// event; the threads that waited for it wait in the parent alone.
class TRAIKLOFOX_API TRAIKLOFOX_CAPABILITY("event") Event : public Handle {
  public:
    /// `initialData`: attached data, -1 for none. `givenName` is copied and only kept: names are never looked
    /// up.
    Event(LONG initialData, BOOL resetsManually, BOOL initialState, const char* givenName);
    ~Event() override;

    DWORD What() const override;
    DWORD WaitForHandle(DWORD milliseconds, BOOL alertable) override;
    DWORD WaitForMultipleHandles(DWORD count, Handle** handles, BOOL waitAll, DWORD milliseconds,
                                 BOOL alertable) override;
    /// Signals the event: wakes one waiter of an auto-reset event or all of a manual-reset one, and every
    /// multiple wait that includes it. Always returns 1.
    BOOL Set() override;
    /// Withdraws the signal. On a manual-reset event it first lets every thread that the signal is releasing
    /// leave its wait. Always returns 1.
    BOOL Reset() override;
    /// Sets the event and leaves it set; returns 0. Kept so for its callers.
    BOOL Pulse() override;
    /// The event itself; consumes nothing.
    Event* GetSynch(int& signaled) override;

    /// 1 when signalled at this moment, else 0.
    BOOL EventIsSignaled() const { return state.load(std::memory_order_acquire) & 1; }

    /// The attached data; -1 for none.
    LONG GetEventData() const { return data.load(std::memory_order_acquire); }
    /// Attaches data, owned by the calling thread; the attachment holds one reference to the event, however
    /// often it is replaced. With -1, the owner detaches it and the reference is dropped, which may destroy
    /// the event. Returns 1, or 0 when a thread other than the owner tries to detach.
    BOOL SetEventData(LONG newData);
    /// Records a revision number, and with `copyData` the data it belongs to.
    void RevStamp(DWORD revision, BOOL copyData);
    DWORD GetLastRev() const { return lastRev.load(std::memory_order_acquire); }
    LONG GetLastData() const { return lastData.load(std::memory_order_acquire); }

    /// Enters and leaves the process-wide event section, for callers that change several events as one step
    /// among themselves. The library's own operations do not need it. It is recursive.
    static void Lock();
    static void Unlock();

    /// 1 for a manual-reset event, else 0.
    BOOL IsManualReset() const { return manualReset; }

  private:
    friend class Handle;
    friend class MultiEvent;
    friend class traiklofox::kernel::EventGuard;
    friend class traiklofox::kernel::WaiterCount;

    struct Embedded {};
    explicit Event(Embedded);  // a MultiEvent's own; its lock comes after every other event's
    Event(LONG initialData, BOOL resetsManually, BOOL initialState, const char* givenName, bool isEmbedded);

    void lockSelf() TRAIKLOFOX_ACQUIRE();
    void unlockSelf() TRAIKLOFOX_RELEASE();
    bool consume();
    DWORD waitUntil(Handle& keepAlive, const timespec* deadline, BOOL alertable);
    DWORD sleepLocked(Handle& keepAlive, const timespec* deadline, BOOL alertable) TRAIKLOFOX_REQUIRES(this);
    static void wakeSleepers(void* event);
    void noteWatchers() TRAIKLOFOX_REQUIRES(this);
    void enroll(traiklofox::kernel::MultiWaitEntry& entry) TRAIKLOFOX_REQUIRES(this);
    void withdraw(traiklofox::kernel::MultiWaitEntry& entry) TRAIKLOFOX_REQUIRES(this);
    bool useUpData() TRAIKLOFOX_REQUIRES(this);

    std::atomic<LONG> data;
    std::atomic<LONG> lastData;
    pthread_t dataOwner TRAIKLOFOX_GUARDED_BY(this);
    std::atomic<DWORD> lastRev;
    std::atomic<int> state;  // signalled, and whether anybody waits; see event.cpp
    const int manualReset;
    int waiters TRAIKLOFOX_GUARDED_BY(this);  // threads blocked in WaitForHandle
    mutable pthread_mutex_t lock;
    pthread_cond_t cond;
    char* const name;
    int resetWaiting TRAIKLOFOX_GUARDED_BY(this);  // Resets that wait for the waiters to leave
    pthread_cond_t resetCond;
    traiklofox::kernel::MultiWaitEntry* multiWaiters
        TRAIKLOFOX_GUARDED_BY(this);  // in order of their MultiEvent
    const bool embedded;
    std::atomic<unsigned short> generation;  // of the process that used it last; see fork_generation.h

    static _critsection EventLock;
};

/// A thread's place to sleep in a multiple wait: one embedded event, and the index of the first event that
/// posted. Each thread that waits for several handles owns one; the class is public for its kind code alone.
class TRAIKLOFOX_API MultiEvent : public Handle {
  public:
    /// With room for a wait on so many handles; it grows as needed.
    explicit MultiEvent(DWORD places);

    ~MultiEvent() override;
    DWORD What() const override;

    /// Tells the waiting thread that `event` was set. Returns 0 when nothing is being waited for, else 1. The
    /// first event to post in a wait is the one it reports; an event that is not part of it posts nothing.
    BOOL PostEvent(Event* event);

  private:
    friend class Event;
    friend class traiklofox::kernel::PostedWaits;

    DWORD waitForEvents(DWORD count, Handle** handles, BOOL waitAll, const timespec* deadline,
                        BOOL alertable);
    void prepare(DWORD count, Handle** handles);
    DWORD enrollAll(BOOL waitAll);
    DWORD sleepUntilPosted(const timespec* deadline, BOOL alertable);
    void leaveAll(DWORD result, BOOL waitAll);
    bool post(LONG index);

    Event event;
    DWORD capacity;
    std::atomic<LONG> signaledIndex;  // -1: none posted yet
    std::unique_ptr<traiklofox::kernel::MultiWaitEntry[]> entries;
    DWORD enrolled;  // entries of the current wait that are registered with their events; 0 between waits
    DWORD count;     // entries of the current wait
};

/// Makes an event; the caller owns its first reference. `attributes` is ignored. `name` may be null.
/// Never returns null: an allocation failure is thrown as `std::bad_alloc`.
///
/// Unlike Win32: two events of one name are unrelated, in one process and in two.
TRAIKLOFOX_C_API Handle* CreateEvent(_SECURITY_ATTRIBUTES* attributes, BOOL manualReset, BOOL initialState,
                                     const char* name);
/// The library's own name for `CreateEvent`.
TRAIKLOFOX_API Handle* EventCreate(_SECURITY_ATTRIBUTES* attributes, BOOL manualReset, BOOL initialState,
                                   const char* name);

/// `handle`'s `Set`: 1 for an event, 0 for a null handle and for kinds that cannot be set.
TRAIKLOFOX_C_API BOOL SetEvent(Handle* handle);
TRAIKLOFOX_API BOOL EventSet(Handle* handle);

/// `handle`'s `Reset`: 1 for an event, 0 for a null handle.
TRAIKLOFOX_C_API BOOL ResetEvent(Handle* handle);
TRAIKLOFOX_API BOOL EventReset(Handle* handle);

/// `handle`'s `Pulse`.
///
/// Unlike Win32: an event stays signalled and the result is 0.
TRAIKLOFOX_C_API BOOL PulseEvent(Handle* handle);
TRAIKLOFOX_API BOOL EventPulse(Handle* handle);
