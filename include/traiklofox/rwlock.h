#pragma once

/// The reader-writer lock.

#include <traiklofox/thread_safety.h>
#include <traiklofox/types.h>

#include <atomic>
#include <string>

/// A reader-writer lock with a preference for readers or for writers, recursive for the thread that writes,
/// with try-locks, time-outs, and the way from a read lock to the write lock and back.
///
/// Thread safety: any thread may call any member. The write lock belongs to the thread that took it; a read
/// lock belongs to nobody, and any thread may release it. Destroy the lock only when nobody holds it or waits
/// for it.
///
/// A thread must not wait for itself: for a read lock while it holds the write lock (test with
/// `IsWriteLockedByMe`), for the write lock while it holds a read lock (use `UpgradeLock`), or, with
/// preference for writers, for a second read lock, which a waiting writer keeps it from.
///
/// Time-outs, everywhere: INFINITE waits without limit. Otherwise the deadline is `FixTimeout` (clocks.h)
/// from the moment the wait begins: a time-out under 1000 ms, or above 0x7FFFFFFF, passes at once,
/// deliberately.
///
/// A wait is a cancellation point (`pthread_cancel`); a thread that is cancelled there leaves without a lock.
/// While nobody waits, taking and releasing the lock are one atomic step each. Nothing allocates but the
/// constructor. No member touches `errno`.
class TRAIKLOFOX_API TRAIKLOFOX_CAPABILITY("reader-writer lock's mutex") RWLock {
  public:
    /// What the operations that acquire return.
    enum Result : DWORD {
        Acquired = 0,
        Busy = 128,      ///< a try failed, or an upgrade is refused
        TimedOut = 258,  ///< `WAIT_TIMEOUT`
    };

    /// readerPriority  true: readers enter whenever nobody writes. false: they also stay out while a writer
    /// waits. name            copied; null gives "UNNAMED LOCK". It only serves a reader of a core dump and
    /// `GetName`. spare           kept and not used.
    explicit RWLock(bool readerPriority = false, const char* name = nullptr, bool spare = false);
    ~RWLock();
    RWLock(const RWLock&) = delete;
    RWLock& operator=(const RWLock&) = delete;

    /// Takes a read lock. `tryOnly`: returns Acquired or Busy and never waits. Else returns Acquired or
    /// TimedOut. `reserved` is not used.
    DWORD ReadLockPrim(bool tryOnly, DWORD milliseconds, void* reserved);
    /// Takes the write lock; the thread that holds it takes it once more, at once and without the mutex, and
    /// releases it as often. Arguments and results as for `ReadLockPrim`.
    DWORD WriteLockPrim(bool tryOnly, DWORD milliseconds, void* reserved);

    /// Takes a read lock, waiting if need be. Returns Acquired (0) or TimedOut.
    DWORD ReadLock(DWORD milliseconds = INFINITE) {
        return ReadLockPrim(/*tryOnly=*/false, milliseconds, /*reserved=*/nullptr);
    }
    /// Takes the write lock, waiting if need be. Returns Acquired (0) or TimedOut.
    DWORD WriteLock(DWORD milliseconds = INFINITE) {
        return WriteLockPrim(/*tryOnly=*/false, milliseconds, /*reserved=*/nullptr);
    }
    /// Takes a read lock if that is possible at once. True when it was taken.
    bool TryReadLock() { return ReadLockPrim(/*tryOnly=*/true, 0, /*reserved=*/nullptr) == Acquired; }
    /// Takes the write lock if that is possible at once. True when it was taken.
    bool TryWriteLock() { return WriteLockPrim(/*tryOnly=*/true, 0, /*reserved=*/nullptr) == Acquired; }

    /// Releases a read lock; always true. That the caller holds one is not tested; when nobody does, nothing
    /// changes.
    bool ReadUnlock();
    /// Releases the write lock once. False, with nothing changed, when the calling thread does not hold it.
    bool WriteUnlock();

    /// Turns the caller's read lock into the write lock.
    ///
    /// Returns Acquired; Busy when another thread writes or waits to write, the read lock being kept; or
    /// TimedOut, and then the caller holds neither lock, deliberately. While it waits it counts as a writer,
    /// so other threads may write only after it.
    DWORD UpgradeLock(DWORD milliseconds);
    /// Turns the caller's write lock into a read lock. Every reader that is waiting at this moment is let in,
    /// ahead of every writer. False, with nothing changed, when the calling thread does not hold the write
    /// lock or holds it more than once.
    bool DowngradeLock();

    /// True when the calling thread holds the write lock.
    bool IsWriteLockedByMe() const { return writer.load(std::memory_order_relaxed) == pthread_self(); }
    /// The name given to the constructor, or "UNNAMED LOCK". Valid as long as the lock.
    const char* GetName() const { return name.c_str(); }

    /// For the child of a `fork`, before it has a second thread: makes the lock as it was constructed,
    /// whoever held it or waited for it in the parent.
    void ResetInChild() TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS;

  private:
    class Section;
    class WaitingReader;
    class WaitingWriter;

    bool readerMayEnter() const TRAIKLOFOX_REQUIRES(this);
    bool writerMayEnter() const TRAIKLOFOX_REQUIRES(this);
    bool tryEnterAsReader();
    bool tryEnterAsWriter();
    void becomeWriter();
    bool WaitReader(DWORD milliseconds) TRAIKLOFOX_REQUIRES(this);
    bool WaitWriter(DWORD milliseconds) TRAIKLOFOX_REQUIRES(this);
    bool sleep(pthread_cond_t& condition, const timespec* deadline) TRAIKLOFOX_REQUIRES(this);
    void wakeThoseWhoMayEnter() TRAIKLOFOX_REQUIRES(this);

    [[maybe_unused]] DWORD initialised = 1;
    std::atomic<DWORD> state = 0;  // who holds the lock; see rwlock.cpp
    DWORD writeDepth = 0;          // touched by the thread that writes alone
    DWORD waitingReaders TRAIKLOFOX_GUARDED_BY(this) = 0;
    DWORD waitingWriters TRAIKLOFOX_GUARDED_BY(this) = 0;
    std::atomic<pthread_t> writer = 0;  // only its own thread can find itself there
    const bool readerPriority;
    [[maybe_unused]] const bool spare;
    bool handoff TRAIKLOFOX_GUARDED_BY(this) = false;    // readers that a downgrade let in have yet to enter
    DWORD handoffCount TRAIKLOFOX_GUARDED_BY(this) = 0;  // how many
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t readCond = PTHREAD_COND_INITIALIZER;
    pthread_cond_t writeCond = PTHREAD_COND_INITIALIZER;
    const std::string name;
    // The handoffs so far, by which a reader knows that it waited through one.
    DWORD handoffs TRAIKLOFOX_GUARDED_BY(this) = 0;
};
