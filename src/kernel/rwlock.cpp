// rwlock.cpp: the reader-writer lock: a word that says who holds it, and for those who wait one mutex, a
// condition for readers and one for writers.
//
// `state` counts the read locks, and holds kWriter while somebody writes and kGuarded while the mutex guards it.
// With kGuarded clear nobody waits, so that whoever finds the lock free enters, and whoever leaves wakes nobody:
// both are one compare-and-exchange. Whatever else there is to do takes the mutex and sets kGuarded; from then on
// such an exchange fails, and `state` changes under the mutex alone, until its holder leaves with nobody waiting.
// Entering acquires what leaving released: through `state`, all of whose changes are read-modify-writes, so that
// none of them breaks the chain.
//
// A thread may destroy the lock as soon as it has left it: its last step may have been an exchange that another
// thread allowed by clearing kGuarded, just before unlocking the mutex. The destructor waits for that unlock.
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

namespace {

constexpr DWORD kWriter = 0x8000'0000;
constexpr DWORD kGuarded = 0x4000'0000;
constexpr DWORD kReaders = kGuarded - 1;  // the count's bits

}  // namespace

/// Holds the lock's mutex, and `state` with it, for a scope.
class TRAIKLOFOX_SCOPED_CAPABILITY RWLock::Section {
  public:
    explicit Section(RWLock& lock) TRAIKLOFOX_ACQUIRE(lock) TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS
        : lock_(lock) {
        pthread_mutex_lock(&lock_.lock);
        traiklofox::foundation::noteLockAcquired(LockRank::Leaf, &lock_);
        lock_.state.fetch_or(kGuarded, std::memory_order_acq_rel);
    }
    ~Section() TRAIKLOFOX_RELEASE() TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
        if (lock_.waitingReaders == 0 && lock_.waitingWriters == 0)  // a handoff's readers wait, too
            lock_.state.fetch_and(~kGuarded, std::memory_order_acq_rel);
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
    { const Section waitForTheLastUnlock(*this); }
    pthread_cond_destroy(&writeCond);
    pthread_cond_destroy(&readCond);
    pthread_mutex_destroy(&lock);
}

bool RWLock::readerMayEnter() const {
    return !(state.load(std::memory_order_relaxed) & kWriter) && (waitingWriters == 0 || readerPriority);
}

bool RWLock::writerMayEnter() const {
    return !(state.load(std::memory_order_relaxed) & (kWriter | kReaders)) && !handoff;
}

bool RWLock::tryEnterAsReader() {
    DWORD seen = state.load(std::memory_order_relaxed);
    while (!(seen & (kWriter | kGuarded))) {
        if (state.compare_exchange_weak(seen, seen + 1, std::memory_order_acquire, std::memory_order_relaxed))
            return true;
    }
    return false;
}

bool RWLock::tryEnterAsWriter() {
    DWORD free = 0;
    if (!state.compare_exchange_strong(free, kWriter, std::memory_order_acquire, std::memory_order_relaxed))
        return false;
    becomeWriter();
    return true;
}

void RWLock::becomeWriter() {
    writer.store(pthread_self(), std::memory_order_relaxed);
    writeDepth = 1;
}

DWORD RWLock::ReadLockPrim(bool tryOnly, DWORD milliseconds, void*) {
    if (tryEnterAsReader()) return Acquired;
    const Section section(*this);
    if (!readerMayEnter()) {
        if (tryOnly) return Busy;
        if (!WaitReader(milliseconds)) return TimedOut;
    }
    state.fetch_add(1, std::memory_order_acq_rel);
    return Acquired;
}

DWORD RWLock::WriteLockPrim(bool tryOnly, DWORD milliseconds, void*) {
    if (IsWriteLockedByMe()) {
        ++writeDepth;
        return Acquired;
    }
    if (tryEnterAsWriter()) return Acquired;
    const Section section(*this);
    if (!writerMayEnter()) {
        if (tryOnly) return Busy;
        if (!WaitWriter(milliseconds)) return TimedOut;
    }
    state.fetch_or(kWriter, std::memory_order_acq_rel);
    becomeWriter();
    return Acquired;
}

bool RWLock::ReadUnlock() {
    DWORD seen = state.load(std::memory_order_relaxed);
    while (!(seen & kGuarded)) {
        if ((seen & kReaders) == 0) return true;
        if (state.compare_exchange_weak(seen, seen - 1, std::memory_order_release, std::memory_order_relaxed))
            return true;
    }
    const Section section(*this);
    const DWORD readers = state.load(std::memory_order_relaxed) & kReaders;
    if (readers == 0) return true;
    state.fetch_sub(1, std::memory_order_acq_rel);
    if (readers == 1) wakeThoseWhoMayEnter();
    return true;
}

bool RWLock::WriteUnlock() {
    if (!IsWriteLockedByMe()) return false;
    if (--writeDepth > 0) return true;
    writer.store(0, std::memory_order_relaxed);
    DWORD alone = kWriter;
    if (state.compare_exchange_strong(alone, 0, std::memory_order_release, std::memory_order_relaxed))
        return true;
    const Section section(*this);
    state.fetch_and(~kWriter, std::memory_order_acq_rel);
    wakeThoseWhoMayEnter();
    return true;
}

DWORD RWLock::UpgradeLock(DWORD milliseconds) {
    const Section section(*this);
    const DWORD seen = state.load(std::memory_order_relaxed);
    if ((seen & kWriter) || waitingWriters > 0) return Busy;
    if (seen & kReaders) state.fetch_sub(1, std::memory_order_acq_rel);
    if (!writerMayEnter() && !WaitWriter(milliseconds)) return TimedOut;
    state.fetch_or(kWriter, std::memory_order_acq_rel);
    becomeWriter();
    return Acquired;
}

bool RWLock::DowngradeLock() {
    if (!IsWriteLockedByMe()) return false;
    const Section section(*this);
    if (writeDepth > 1) return false;
    writeDepth = 0;
    writer.store(0, std::memory_order_relaxed);
    state.fetch_add(1 - kWriter, std::memory_order_acq_rel);
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
    state.store(0, std::memory_order_relaxed);
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
