// rwlock.cpp: the reader-writer lock: one mutex over all state, one condition for readers, one for writers.
//
// Nobody is stranded: whenever somebody who waits may enter, somebody who may has been woken and has yet to
// run, or has just been told so. Each change that can let others in therefore ends with
// `wakeThoseWhoMayEnter`: the last reader's and the writer's leaving, and a waiter's giving up (its time-out,
// its cancellation), which may have been all that held others back, and which may have swallowed a wake-up
// that was meant for whoever may enter.
//
// A downgrade hands the lock to the readers that wait at that moment: it counts them in `handoffCount`, and
// no writer enters before each of them has entered or given up. A reader knows that it is among them when
// `handoffs` has changed while it waited. No second handoff can begin before the first is over, since only a
// writer begins one.

#include <traiklofox/clocks.h>
#include <traiklofox/rwlock.h>

#include "foundation/lock_rank.h"

using traiklofox::foundation::LockRank;

/// Holds the lock's mutex for a scope.
class TRAIKLOFOX_SCOPED_CAPABILITY RWLock::Section {
  public:
    explicit Section(RWLock& lock) TRAIKLOFOX_ACQUIRE(lock) TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS
        : lock_(lock) {
        pthread_mutex_lock(&lock_.lock);
        traiklofox::foundation::noteLockAcquired(LockRank::Leaf, &lock_);
    }
    ~Section() TRAIKLOFOX_RELEASE() TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
        traiklofox::foundation::noteLockReleased(LockRank::Leaf, &lock_);
        pthread_mutex_unlock(&lock_.lock);
    }
    Section(const Section&) = delete;
    Section& operator=(const Section&) = delete;

  private:
    RWLock& lock_;
};

/// Counts the calling thread as a waiting reader for a scope, which also ends when the thread is cancelled.
class RWLock::WaitingReader {
  public:
    explicit WaitingReader(RWLock& lock) TRAIKLOFOX_REQUIRES(lock)
        : lock_(lock), handoffsBefore_(lock.handoffs) {
        ++lock_.waitingReaders;
    }
    ~WaitingReader()
        TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {  // the mutex that the constructor required is still held
        --lock_.waitingReaders;
        if (isHandedTheLock() && --lock_.handoffCount == 0) lock_.handoff = false;
        if (!enters_) lock_.wakeThoseWhoMayEnter();
    }
    WaitingReader(const WaitingReader&) = delete;
    WaitingReader& operator=(const WaitingReader&) = delete;

    bool isHandedTheLock() const TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {  // likewise
        return lock_.handoffs != handoffsBefore_;
    }
    void enter() { enters_ = true; }

  private:
    RWLock& lock_;
    const DWORD handoffsBefore_;
    bool enters_ = false;
};

/// Counts the calling thread as a waiting writer for a scope, which also ends when the thread is cancelled.
class RWLock::WaitingWriter {
  public:
    explicit WaitingWriter(RWLock& lock) TRAIKLOFOX_REQUIRES(lock) : lock_(lock) { ++lock_.waitingWriters; }
    ~WaitingWriter()
        TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {  // the mutex that the constructor required is still held
        --lock_.waitingWriters;
        if (!enters_) lock_.wakeThoseWhoMayEnter();
    }
    WaitingWriter(const WaitingWriter&) = delete;
    WaitingWriter& operator=(const WaitingWriter&) = delete;

    void enter() { enters_ = true; }

  private:
    RWLock& lock_;
    bool enters_ = false;
};

namespace {

/// A wait's deadline, reckoned once, however often the wait is woken in vain.
class Deadline {
  public:
    explicit Deadline(DWORD milliseconds) : infinite_(milliseconds == INFINITE) {
        if (!infinite_) FixTimeout(time_, static_cast<LONG>(milliseconds));
    }
    const timespec* get() const { return infinite_ ? nullptr : &time_; }

  private:
    const bool infinite_;
    timespec time_{};
};

}  // namespace

RWLock::RWLock(bool prefersReaders, const char* givenName, bool spareFlag)
    : readerPriority(prefersReaders),
      spare(spareFlag),
      name(givenName != nullptr ? givenName : "UNNAMED LOCK") {}

RWLock::~RWLock() {
    pthread_cond_destroy(&writeCond);
    pthread_cond_destroy(&readCond);
    pthread_mutex_destroy(&lock);
}

DWORD RWLock::ReadLockPrim(bool tryOnly, DWORD milliseconds, void*) {
    const Section section(*this);
    if (!readerMayEnter()) {
        if (tryOnly) return Busy;
        if (!WaitReader(milliseconds)) return TimedOut;
    }
    ++readers;
    return Acquired;
}

DWORD RWLock::WriteLockPrim(bool tryOnly, DWORD milliseconds, void*) {
    if (IsWriteLockedByMe()) {
        ++writeDepth;
        return Acquired;
    }
    const Section section(*this);
    if (!writerMayEnter()) {
        if (tryOnly) return Busy;
        if (!WaitWriter(milliseconds)) return TimedOut;
    }
    enterAsWriter();
    return Acquired;
}

bool RWLock::ReadUnlock() {
    const Section section(*this);
    if (readers > 0 && --readers == 0) wakeThoseWhoMayEnter();
    return true;
}

bool RWLock::WriteUnlock() {
    if (!IsWriteLockedByMe()) return false;
    const Section section(*this);
    if (--writeDepth == 0) {
        writer.store(0, std::memory_order_relaxed);
        wakeThoseWhoMayEnter();
    }
    return true;
}

DWORD RWLock::UpgradeLock(DWORD milliseconds) {
    const Section section(*this);
    if (writer.load(std::memory_order_relaxed) != 0 || waitingWriters > 0) return Busy;
    if (readers > 0) --readers;
    if (!writerMayEnter() && !WaitWriter(milliseconds)) return TimedOut;
    enterAsWriter();
    return Acquired;
}

bool RWLock::DowngradeLock() {
    if (!IsWriteLockedByMe()) return false;
    const Section section(*this);
    if (writeDepth > 1) return false;
    writeDepth = 0;
    writer.store(0, std::memory_order_relaxed);
    ++readers;
    if (waitingReaders > 0) {
        handoff = true;
        handoffCount = waitingReaders;
        ++handoffs;
        pthread_cond_broadcast(&readCond);
    }
    return true;
}

// Waits until a reader may enter; false when the time-out passed first. The caller then counts itself in.
bool RWLock::WaitReader(DWORD milliseconds) {
    WaitingReader waiting(*this);
    const Deadline deadline(milliseconds);
    bool timedOut = false;
    while (!waiting.isHandedTheLock() && !readerMayEnter()) {
        if (timedOut) return false;
        timedOut = !sleep(readCond, deadline.get());
    }
    waiting.enter();
    return true;
}

// Waits until a writer may enter; false when the time-out passed first.
bool RWLock::WaitWriter(DWORD milliseconds) {
    WaitingWriter waiting(*this);
    const Deadline deadline(milliseconds);
    bool timedOut = false;
    while (!writerMayEnter()) {
        if (timedOut) return false;
        timedOut = !sleep(writeCond, deadline.get());
    }
    waiting.enter();
    return true;
}

// Sleeps until woken; false when `deadline` (null: none) passed.
bool RWLock::sleep(pthread_cond_t& condition, const timespec* deadline) {
    if (deadline == nullptr) return pthread_cond_wait(&condition, &lock) == 0;
    return pthread_cond_timedwait(&condition, &lock, deadline) == 0;
}

// Readers are woken together, writers one at a time. While a handoff lasts its readers are awake already, and
// the last of them to leave wakes a writer.
void RWLock::wakeThoseWhoMayEnter() {
    if (waitingReaders > 0 && readerMayEnter()) {
        pthread_cond_broadcast(&readCond);
    } else if (waitingWriters > 0 && writerMayEnter()) {
        pthread_cond_signal(&writeCond);
    }
}

void RWLock::ResetInChild() {
    readers = 0;
    writeDepth = 0;
    waitingReaders = 0;
    waitingWriters = 0;
    writer.store(0, std::memory_order_relaxed);
    handoff = false;
    handoffCount = 0;
    handoffs = 0;
    lock = PTHREAD_MUTEX_INITIALIZER;
    readCond = PTHREAD_COND_INITIALIZER;
    writeCond = PTHREAD_COND_INITIALIZER;
}
