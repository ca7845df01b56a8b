#pragma once

/// Waiting for one handle or for several.

#include <traiklofox/handle.h>

constexpr DWORD WAIT_OBJECT_0 = 0;          ///< plus the index of the handle that ended the wait
constexpr DWORD WAIT_IO_COMPLETION = 192;   ///< queued calls ended an alertable wait (or see SleepEx)
constexpr DWORD WAIT_TIMEOUT = 258;         ///< the time-out passed
constexpr DWORD WAIT_FAILED = 0xFFFFFFFF;   ///< a null handle, an empty array, more than 64 mixed handles
constexpr DWORD MAXIMUM_WAIT_OBJECTS = 64;  ///< the most handles in one wait on several kinds

/// Waits until `handle` is signalled. Any thread may call; its reference must outlive the call.
///
/// milliseconds  0 tests without blocking; INFINITE never times out.
/// alertable     TRUE: a queued call that runs on this thread ends a timed wait.
/// Returns WAIT_OBJECT_0, WAIT_TIMEOUT, WAIT_IO_COMPLETION, or WAIT_FAILED for a null handle, or with errno
/// ENOMEM. Leaves errno alone otherwise. An auto-reset event is consumed by the wait that returns
/// WAIT_OBJECT_0. A kind that has no wait of its own (a file, a timer) counts as signalled. A wait on a
/// process has no time-out (see process.h). A cancellation point (`pthread_cancel`).
///
/// Unlike Win32: an INFINITE wait on one event never runs queued calls, alertable or not.
TRAIKLOFOX_C_API DWORD WaitForSingleObjectEx(Handle* handle, DWORD milliseconds, BOOL alertable);

/// `WaitForSingleObjectEx`, not alertable.
TRAIKLOFOX_C_API DWORD WaitForSingleObject(Handle* handle, DWORD milliseconds);

/// Waits on `count` handles; null entries are skipped. Arguments as for `WaitForSingleObjectEx`.
///
/// Returns WAIT_OBJECT_0 + the index of the handle that ended the wait, WAIT_TIMEOUT, WAIT_IO_COMPLETION, or
/// WAIT_FAILED: an empty array, nothing but null entries, more than MAXIMUM_WAIT_OBJECTS handles of several
/// kinds, or an array of nothing but threads (which also writes a message to standard error). Leaves errno
/// alone. An array of nothing but processes is waited for as `Process::WaitForMultipleHandles` says.
///
/// Events only: a wait for any consumes the auto-reset event that it reports; other events keep their
/// signals. Several threads that wait for one auto-reset event in multiple waits may all be released by one
/// `SetEvent`; only single waits count signals exactly.
///
/// Unlike Win32:
/// - a wait for all that finds every event signalled returns 0 and resets none of them;
/// - a wait for all that has to block returns as soon as any event is set, with that one's index, and resets
///   every auto-reset event in the array;
/// - in an array of several kinds the first handle found signalled is reported at once, also for a wait for
/// all;
///   an event reported that way keeps its signal even when it is auto-reset;
/// - an array of one kind alone of files, timers, mutexes or semaphores returns 0 at once; one of semaphores and
///   mutexes is ended by its time-out alone.
TRAIKLOFOX_C_API DWORD WaitForMultipleObjectsEx(DWORD count, Handle** handles, BOOL waitAll,
                                                DWORD milliseconds, BOOL alertable);

/// `WaitForMultipleObjectsEx`, not alertable.
TRAIKLOFOX_C_API DWORD WaitForMultipleObjects(DWORD count, Handle** handles, BOOL waitAll,
                                              DWORD milliseconds);
