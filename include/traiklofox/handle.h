#pragma once

/// The base of every kernel object, the two kinds that only hold something (`File`, `SecurityToken`), and the
/// functions that close and duplicate a handle.
///
/// A handle is a pointer to a reference-counted object; there is no handle table. Whoever creates an object
/// owns its first reference; the last `CloseHandle`, from whatever thread, destroys it. Using a handle after
/// one's own reference is closed is undefined, as with any pointer.

#include <traiklofox/types.h>

#include <atomic>

class Event;

/// What `Handle::What` returns.
enum HandleKind : DWORD {
    HANDLE_KIND_HANDLE = 0,
    HANDLE_KIND_PROCESS = 1,
    HANDLE_KIND_FILE = 2,
    HANDLE_KIND_THREAD = 3,
    HANDLE_KIND_SECURITY_TOKEN = 4,
    HANDLE_KIND_SEMAPHORE = 5,
    HANDLE_KIND_EVENT = 6,
    HANDLE_KIND_MULTI_EVENT = 7,
    HANDLE_KIND_MUTEX = 8,
    HANDLE_KIND_TIMER = 9,
    HANDLE_KIND_FIND_FILE = 10,
    HANDLE_KIND_CHANGE_NOTIFICATION = 11,
    HANDLE_KIND_IO_COMPLETION_PORT = 12,
};

/// A kernel object. The virtual operations stand in a fixed order; a kind overrides those that it supports,
/// and the base's answer says "signalled" to a wait and "nothing done" to the rest.
///
/// Thread safety: every member may be called by any thread that holds a reference.
class TRAIKLOFOX_API Handle {
  public:
    /// Starts with `references` references and no synchronisation event. The kinds pass 1.
    explicit Handle(LONG references);
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;

    /// Drops the reference to the synchronisation event, if there is one. Run by the last `DecRefCount`.
    virtual ~Handle();

    /// The kind, a `HandleKind`.
    virtual DWORD What() const;

    /// Waits for this one handle. `milliseconds`: 0 tests, INFINITE waits without limit. `alertable`:
    /// non-zero lets queued calls end a timed wait. Returns a wait result (see wait.h). Base: 0 at once.
    virtual DWORD WaitForHandle(DWORD milliseconds, BOOL alertable);

    /// Waits on `count` handles of this one's kind. Base: 0 at once.
    virtual DWORD WaitForMultipleHandles(DWORD count, Handle** handles, BOOL waitAll, DWORD milliseconds,
                                         BOOL alertable);

    /// Makes the object signalled, if its kind can be. Returns 1 when it did. Base: 0.
    virtual BOOL Set();

    /// Withdraws the signal. Base: resets the synchronisation event and returns 1, or 0 when there is none.
    virtual BOOL Reset();

    /// `SetEvent` and `ResetEvent` in one, where the kind can. Base: 0.
    virtual BOOL Pulse();

    /// The event that stands for this handle in a wait on handles of several kinds; the handle keeps the
    /// reference. `signaled` becomes 1 when it is already signalled, else 0. Base: reports and at once
    /// consumes a pending signal; makes an auto-reset event on first need.
    virtual Event* GetSynch(int& signaled);

    /// Undoes what `GetSynch` registered. Base: nothing.
    virtual void FreeSynch();

    /// Called by whoever finishes this object's work, to wake the waits that go through `GetSynch`. Returns
    /// what `Set` on the synchronisation event returns, or 0 when nobody ever asked for one. Base does that.
    virtual BOOL Signal();

    /// Takes a reference; returns the new count.
    LONG IncRefCount();
    /// Drops a reference; returns the new count. At 0 the object has been destroyed. Never call it while
    /// holding a lock that a destructor may want.
    LONG DecRefCount();
    /// The count at this moment; other threads may change it at any time.
    LONG GetRefCount() const { return refCount.load(std::memory_order_relaxed); }

  protected:
    /// The synchronisation event, made on first need with the given reset behaviour.
    Event* synchEvent(BOOL manualReset);
    Event* existingSynch() const { return synch.load(); }

  private:
    std::atomic<Event*> synch;
    std::atomic<LONG> refCount;
};

/// A handle over a POSIX descriptor, which it owns: the destructor closes it.
class TRAIKLOFOX_API File : public Handle {
  public:
    /// `descriptor` may be -1 for none.
    explicit File(int descriptor);
    ~File() override;
    DWORD What() const override;

    /// Replaces the descriptor without closing the old one, which the caller then owns.
    void SetFd(int descriptor) { fd = descriptor; }
    /// The descriptor, -1 for none. It stays the handle's own.
    int GetFd() const { return fd; }

  private:
    int fd;
};

/// The user and group that a child process is to run as (`CreateProcessAsUser`).
class TRAIKLOFOX_API SecurityToken : public Handle {
  public:
    /// Makes a token for this user and group id.
    SecurityToken(UINT asUser, UINT asGroup);

    ~SecurityToken() override;
    DWORD What() const override;

    /// The user and the group id to become.
    UINT GetUid() const { return uid; }
    UINT GetGid() const { return gid; }

    /// Stores a new id and returns the old one. Not synchronised: set a token up before sharing it.
    UINT SetUid(UINT newUid);
    UINT SetGid(UINT newGid);

    /// Makes the calling process run as the token's group and user, for good. Returns 1 only when both
    /// changes succeeded; the user id is left alone when the group could not be changed. errno is that of the
    /// failing call.
    BOOL InvokeSecurityToken();

    /// What the process's real user and group were when the token was made.
    UINT GetSavedUid() const { return savedUid; }
    UINT GetSavedGid() const { return savedGid; }

  private:
    UINT uid;
    UINT savedUid;
    UINT gid;
    UINT savedGid;
};

/// Drops the caller's reference; the last one destroys the object. Returns 1, or 0 for a null handle or
/// INVALID_HANDLE_VALUE. Any thread may call it. errno is left alone.
TRAIKLOFOX_C_API BOOL CloseHandle(Handle* handle);
/// The library's own name for `CloseHandle`.
TRAIKLOFOX_API BOOL HandleClose(Handle* handle);

/// Takes another reference to `source` and stores `source` itself in `*target` when `target` is not null.
/// Returns 1, or 0 for a null or invalid source. The processes, access, inheritance and options are ignored.
///
/// Unlike Win32: the duplicate is the same object and the same pointer; two `CloseHandle` calls on it are
/// then due.
TRAIKLOFOX_C_API BOOL DuplicateHandle(Handle* sourceProcess, Handle* source, Handle* targetProcess,
                                      Handle** target, DWORD access, BOOL inherit, DWORD options);
