#pragma once

/// Sleeping, millisecond clocks, and deadlines for timed waits. Every function is safe from any thread.

#include <traiklofox/types.h>

/// Sleeps.
///
/// milliseconds  0 only gives up the processor and returns 0, even when calls are queued and `alertable` is
/// set.
///               INFINITE is not special: it sleeps its 4294967 seconds.
/// alertable     TRUE: a call queued to this thread, before or during the sleep, runs and ends it.
/// A cancellation point. Returns 0 after the whole time, or WAIT_IO_COMPLETION (192) when queued calls or a
/// signal handler ended the sleep. A sleep that is not alertable always lasts the whole time, whatever signals
/// the thread handles meanwhile. Leaves `errno` alone.
///
/// Unlike Win32: any signal handler that runs on the thread ends an alertable sleep, also, late, the library's
/// own for a call that the thread has already run. So WAIT_IO_COMPLETION does not say that a call ran.
TRAIKLOFOX_C_API DWORD SleepEx(DWORD milliseconds, BOOL alertable);

/// `SleepEx(milliseconds, FALSE)`.
TRAIKLOFOX_C_API void Sleep(DWORD milliseconds);

/// The wall clock in milliseconds, modulo 2^32: it wraps about every 49.7 days.
///
/// Unlike Win32: it counts from the Unix epoch and not from the machine's start, and steps when the clock is
/// set.
TRAIKLOFOX_C_API DWORD GetTickCount();

/// `GetTickCount` extended to 64 bits: whenever bit 31 of the tick count has flipped since the last reading
/// in this process, in either direction, 2^31 is added, so that the value does not wrap as long as it is read
/// at least once every 2^31 ms (24.8 days). It has no fixed origin: use differences. Lock-free.
TRAIKLOFOX_API ULONGLONG GetMilliTime();

/// `GetMilliTime()`, under its Win32 name.
TRAIKLOFOX_C_API ULONGLONG GetTickCount64();

/// The milliseconds between `since`, an earlier value of `GetMilliTime`, and now; for 0, `GetMilliTime`
/// itself.
TRAIKLOFOX_API ULONGLONG GetElapsedTime(ULONGLONG since);

/// Sets `deadline` to `milliseconds` from now on the wall clock, as `pthread_cond_timedwait` takes it,
/// rounding the present moment up to a whole millisecond where the time-out has a fraction of a second.
///
/// A time-out under one second, and a negative one, gives the present moment, deliberately. A deadline beyond
/// the last second that `time_t` can hold is that second.
TRAIKLOFOX_API void FixTimeout(timespec& deadline, LONG milliseconds);
