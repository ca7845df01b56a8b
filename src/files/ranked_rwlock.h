#pragma once

// A reader-writer lock with a rank, and with the attributes that let clang prove who guards what.

#include <traiklofox/rwlock.h>

#include "foundation/lock_rank.h"

namespace traiklofox::files {

template <foundation::LockRank Rank>
class TRAIKLOFOX_CAPABILITY("reader-writer lock") RankedRWLock {
  public:
    explicit RankedRWLock(const char* name) : native_(/*readerPriority=*/false, name) {}

    void lock() TRAIKLOFOX_ACQUIRE() TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
        (void)native_.WriteLock();  // without a time-out it always succeeds
        foundation::noteLockAcquired(Rank, this);
    }
    void unlock() TRAIKLOFOX_RELEASE() TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
        foundation::noteLockReleased(Rank, this);
        (void)native_.WriteUnlock();
    }
    void lockShared() TRAIKLOFOX_ATTRIBUTE(acquire_shared_capability()) TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
        (void)native_.ReadLock();
        foundation::noteLockAcquired(Rank, this);
    }
    void unlockShared()
        TRAIKLOFOX_ATTRIBUTE(release_shared_capability()) TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
        foundation::noteLockReleased(Rank, this);
        (void)native_.ReadUnlock();
    }

  private:
    RWLock native_;
};

/// Holds such a lock for reading, for a scope.
template <class Lockable>
class TRAIKLOFOX_SCOPED_CAPABILITY SharedGuard {
  public:
    explicit SharedGuard(Lockable& lockable) TRAIKLOFOX_ATTRIBUTE(acquire_shared_capability(lockable))
        : lockable_(lockable) {
        lockable_.lockShared();
    }
    ~SharedGuard() TRAIKLOFOX_ATTRIBUTE(release_generic_capability()) { lockable_.unlockShared(); }
    SharedGuard(const SharedGuard&) = delete;
    SharedGuard& operator=(const SharedGuard&) = delete;

  private:
    Lockable& lockable_;
};

}  // namespace traiklofox::files
