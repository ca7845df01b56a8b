#pragma once

/// Threads, suspending them, and asynchronous procedure calls.

#include <traiklofox/handle.h>
#include <traiklofox/thread_safety.h>

#include <atomic>
#include <memory>

class MultiEvent;

namespace traiklofox::kernel {
class CallQueue;
class ThreadLife;
}  // namespace traiklofox::kernel

/// A thread's start function. Its result is not kept.
typedef DWORD (*LPTHREAD_START_ROUTINE)(void*);
/// A function run by an asynchronous call, or a timer's completion routine.
typedef void (*PAPCFUNC)(void*, void*, void*);
typedef PAPCFUNC PTIMERAPCROUTINE;

/// Whether a thread has ended.
enum ThreadState_t : int {
    THREAD_RUNNING = 0,
    THREAD_FINISHED = 1,
};

/// A thread. Signalled, for every waiter and for ever, once the thread has ended.
class TRAIKLOFOX_API TRAIKLOFOX_CAPABILITY("thread state") Thread : public Handle {
  public:
    /// `id` is a pthread id; 0 for a thread that has yet to be created.
    explicit Thread(ULONG_PTR id);
    ~Thread() override;

    DWORD What() const override;
    DWORD WaitForHandle(DWORD milliseconds, BOOL alertable) override;
    /// Writes "Thread::WaitForMultiple: called without an event!" to standard error and returns WAIT_FAILED.
    DWORD WaitForMultipleHandles(DWORD count, Handle** handles, BOOL waitAll, DWORD milliseconds,
                                 BOOL alertable) override;
    /// The thread's end, as an event; a thread that has already ended reports it every time.
    Event* GetSynch(int& signaled) override;

    /// Stops the thread inside a signal handler until as many `Resume` calls follow. Returns the number of
    /// suspensions before this one, or -1 when the thread has ended or cannot be signalled. The thread may
    /// hold any lock while it is stopped but that of a thread's state: a suspender that then needs it, such as an
    /// event's, the heap's, or that of a queue of calls, waits for ever.
    LONG Suspend();
    /// Takes back one `Suspend`. Returns the number of suspensions before this call (0: it was not
    /// suspended), or -1 when the thread has ended or cannot be signalled.
    LONG Resume();

    /// Queues `function(a, b, c)` to run on this thread in its next alertable wait or sleep, and ends one
    /// that is under way. A null function only ends it. Dropped when the thread has ended.
    void QueueAPC(PAPCFUNC function, void* a, void* b, void* c);
    /// Runs the queued calls, oldest first, and those that they queue to their own thread; what other threads
    /// queue meanwhile waits for the next time. Only for the thread itself. Returns 1 if any ran, else 0. No
    /// lock is held while a call runs: it may queue further calls, wait and set events.
    BOOL CheckAPC();

    /// Whether the thread runs or has ended. Only its own end should set it.
    ThreadState_t GetState() const;
    void SetState(ThreadState_t newState);
    /// The pthread id; 0 once the thread has ended.
    ULONG_PTR GetTid() const;
    void SetTid(ULONG_PTR newTid);

    /// Scheduling priority and its change, as `GetThreadPriority` and `SetThreadPriority` return them; ESRCH
    /// for a thread that has ended or has yet to be created.
    int GetPriority() const;
    int SetPriority(int priority);

  private:
    friend class traiklofox::kernel::ThreadLife;

    class StateGuard;
    class IdUse;
    void lockSelf() const TRAIKLOFOX_ACQUIRE();
    void unlockSelf() const TRAIKLOFOX_RELEASE();

    pthread_t tid TRAIKLOFOX_GUARDED_BY(this);
    std::atomic<ThreadState_t> state;  // changed under the lock
    mutable pthread_mutex_t
        lock;  // the thread's exit takes it too, so that no signal goes to an id that is gone
    LONG suspendCount TRAIKLOFOX_GUARDED_BY(this);
    mutable std::atomic<int>
        idUses;  // calls that use the id without the lock; the thread's exit waits for them
    const std::unique_ptr<traiklofox::kernel::CallQueue> calls;
};

/// What every thread keeps for itself, all null at first. Freed when the thread ends.
struct ThreadContext {
    Thread* thread;            ///< the thread's own handle: one reference
    MultiEvent* multiEvent;    ///< where it sleeps in waits on several handles: one reference
    Event* notification;       ///< its event for synchronous registry notifications: one reference
    unsigned int* randomSeed;  ///< `KzRandom`'s seed, made with `new`
};

/// The calling thread's record, made on its first call. It belongs to the thread; do not pass it on.
TRAIKLOFOX_API ThreadContext* GetThreadContext();

/// Process-wide settings, as their callers know them. `ThreadScopeState` is the contention scope (0: system)
/// of the threads that `CreateThread` makes; set it before they are made. `ThreadStackSize` is kept and read
/// by nothing.
extern TRAIKLOFOX_API int ThreadScopeState;
extern TRAIKLOFOX_API int ThreadStackSize;
/// A thread id that no thread has.
extern TRAIKLOFOX_API const pthread_t NULL_PTHREAD;

/// Starts a thread that runs `start(argument)`. `attributes`, `stackSize` and `flags` are ignored: every
/// thread starts at once, with the default stack, detached. Returns the handle (the caller owns one
/// reference, the thread keeps its own until it ends), or null when the thread cannot be created; errno then
/// says why. `threadId` may be null; otherwise it receives the pthread id. Any thread may call it.
///
/// Unlike Win32: no thread starts suspended, and its result is not kept.
TRAIKLOFOX_C_API Handle* CreateThread(_SECURITY_ATTRIBUTES* attributes, SIZE_T stackSize,
                                      LPTHREAD_START_ROUTINE start, void* argument, DWORD flags,
                                      ULONG_PTR* threadId);

/// The start routine of every thread that `CreateThread` makes; `arguments` is private to the two.
TRAIKLOFOX_API void* KzThreadBase(void* arguments);

/// `pthread_create` that reports: on failure writes "unixthread_create: pthread_create failed, err=..." to
/// standard error. Returns 0 or the error number. Null `attributes` are the default ones.
TRAIKLOFOX_API int unixthread_create(pthread_t* thread, pthread_attr_t* attributes, void* (*start)(void*),
                                     void* argument);
/// Creates a detached thread. The environment variable `TW_THREAD_STACK_SIZE`, when it is a number above 0,
/// is its stack size in units of 1000 bytes. Reports and returns as `unixthread_create` does.
TRAIKLOFOX_API int unixthread_create_detached(void* (*start)(void*), void* argument);

/// The calling thread's handle, which stays the thread's own: duplicate it before handing it to somebody who
/// may outlive the thread. Works on threads that the library did not start.
///
/// Never returns null: an allocation failure, on the first call of such a thread, is thrown as `std::bad_alloc`.
///
/// Unlike Win32: it is the real handle, not a pseudo-handle.
TRAIKLOFOX_C_API Handle* GetCurrentThread();
/// The calling thread's pthread id.
TRAIKLOFOX_C_API ULONG_PTR GetCurrentThreadId();

/// Ends the calling thread by `pthread_exit`, which unwinds its stack. The code is not kept.
TRAIKLOFOX_C_API void ExitThread(DWORD code) __attribute__((noreturn));
/// Does nothing and returns 1: no thread can be ended from outside without breaking what it holds.
TRAIKLOFOX_C_API BOOL TerminateThread(Handle* thread, DWORD code);

/// `Thread::Suspend` and `Thread::Resume`; -1 for a handle that is no thread.
TRAIKLOFOX_C_API DWORD SuspendThread(Handle* thread);
TRAIKLOFOX_C_API DWORD ResumeThread(Handle* thread);

/// The thread's POSIX scheduling priority, or the error number when it cannot be read (ESRCH once it has
/// ended).
TRAIKLOFOX_C_API int GetThreadPriority(Handle* thread);
/// Sets the scheduling priority within the thread's policy. Returns 0 or the error number.
///
/// Unlike Win32: 0 is success, and the range is the policy's.
TRAIKLOFOX_C_API int SetThreadPriority(Handle* thread, int priority);

/// Queues `function(data, 0, 0)` to `thread`, which runs it in its next alertable wait or sleep; one under
/// way ends with WAIT_IO_COMPLETION, and another call that the thread blocks in fails with EINTR if the
/// thread has ever checked for calls. Dropped when the thread has ended; lost when it never waits alertably.
/// Any thread may call. A null `function` only ends the wait. Returns 0, or 0xFFFFFFFF for a handle that is no
/// thread, or with errno ENOMEM.
///
/// Unlike Win32: 0 is success.
TRAIKLOFOX_C_API DWORD QueueUserAPC(PAPCFUNC function, Handle* thread, ULONG_PTR data);

/// Installs the handlers of the three real-time signals that the library uses (SIGRTMIN: queued calls, + 1:
/// suspend,
/// + 2: resume), and blocks SIGRTMIN + 2 in the calling thread and those it creates later. Done once when the
/// library is loaded; call it again in a thread whose mask must be set.
TRAIKLOFOX_API void UserAPCInit();
/// Runs the calling thread's queued calls. Returns 1 if any ran, else 0. Every alertable wait and sleep calls
/// it.
TRAIKLOFOX_API int UserAPCCheck();
