#pragma once

/// Waitable timers, whose expiry is a call on the thread that set them.

#include <traiklofox/handle.h>
#include <traiklofox/threads.h>

#include <string>

namespace traiklofox::kernel {
class TimersAtFork;
}

/// A timer. At its due time its completion routine, with the timer's argument and the due time's seconds and
/// nanoseconds, is queued to the thread that set it, which runs it in its next
/// alertable wait or sleep (see `QueueUserAPC`). That is all that an expiry does: unlike on Win32, a wait for a timer
/// alone, or for timers alone, returns 0 at once, and a wait on several kinds never sees one expire.
///
/// One thread of the library, started by the first timer, serves all of them until the process ends. They expire in
/// the order of their due times' whole seconds; within one second in the order in which they were set, each at its
/// due time or after those before it.
///
/// Thread safety: any thread holding a reference may call any member. No routine runs under a lock; it may set,
/// cancel and close its own timer. Closing the last reference cancels the timer. In the child of a `fork` none is set.
class TRAIKLOFOX_API Timer : public Handle {
  public:
    /// Not set. `resetsManually` is kept; it has no effect. `givenName` is copied and only kept.
    Timer(BOOL resetsManually, const char* givenName);
    ~Timer() override;
    DWORD What() const override;

    /// Sets the timer, instead of what it was set to: the old due time does not come any more.
    ///
    /// dueTime      absolute, seconds and nanoseconds (0 to 999999999) since 1970-01-01 UTC; one in the past is now.
    /// newPeriod    0: expires once. Otherwise milliseconds after each expiry until the next, by `FixTimeout`: one
    ///              under 1000, or negative, is at once, deliberately.
    /// newRoutine   null: an expiry still ends an alertable wait.
    /// Returns 1; 0 with errno EINVAL for a null `dueTime` or nanoseconds that are none, or with that of
    /// `pthread_create` when the timers' thread cannot be started.
    ///
    /// A periodic timer that finds 10,000 calls waiting on its thread, which never waits alertably, skips expiries
    /// until there are fewer.
    BOOL SetTimer(const timespec* dueTime, LONG newPeriod, PTIMERAPCROUTINE newRoutine, void* newArgument);

    /// Takes the timer back. Returns 1 when it was set and had yet to expire: its routine does not run, unless an
    /// earlier expiry of a periodic timer has queued it. 0 otherwise, and for null.
    static BOOL Cancel(Timer* timer);

    /// Starts the timers' thread, if it does not run. Returns 1, or 0 with errno when it cannot be created.
    static BOOL StartThread();

  private:
    friend class traiklofox::kernel::TimersAtFork;

    enum State { Idle, Fired, Queued };
    struct Expiry;

    bool Queue();
    void unlink();
    bool InsertHere(const timespec& time) const { return time.tv_sec < due.tv_sec; }
    bool ownerTakesCalls() const;
    Expiry expire();
    static Expiry awaitExpiry();
    static DWORD TimerThread(void*);

    State state;
    const BOOL manualReset;
    timespec due;
    LONG period;
    Thread* ownerThread;  // with a reference while the timer is queued
    const std::string name;
    PTIMERAPCROUTINE routine;
    void* argument;
    Timer* previous;  // in the list of the queued ones
    Timer* next;
};

/// Makes a timer that is not set; the caller owns its first reference. `attributes` is ignored. `name` may be null.
/// Never returns null: an allocation failure is thrown as `std::bad_alloc`.
///
/// Unlike Win32: two timers of one name are unrelated.
TRAIKLOFOX_C_API Handle* CreateWaitableTimer(_SECURITY_ATTRIBUTES* attributes, BOOL manualReset,
                                             const char* name);

/// `Timer::SetTimer` with the same arguments and results; `resume` is ignored. Returns 0 with errno EINVAL for a handle
/// that is no timer.
///
/// Unlike Win32: the due time is a `timespec`, absolute, and the routine gets it in the same form.
TRAIKLOFOX_C_API BOOL SetWaitableTimer(Handle* timer, const timespec* dueTime, LONG period,
                                       PTIMERAPCROUTINE routine, void* argument, BOOL resume);

/// `Timer::Cancel`; 0 for a handle that is no timer.
///
/// Unlike Win32: 0 for a timer that is not set.
TRAIKLOFOX_C_API BOOL CancelWaitableTimer(Handle* timer);
