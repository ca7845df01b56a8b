#pragma once

// The private classes' mutex and condition variable: pthread's, with a rank, and with the attributes that let
// clang prove who guards what. Both are trivially destructible, so that statics of these types outlive exit.

#include <pthread.h>
#include <traiklofox/thread_safety.h>

#include "foundation/lock_rank.h"

namespace traiklofox::foundation {

template <LockRank Rank>
class TRAIKLOFOX_CAPABILITY("mutex") Mutex {
  public:
    constexpr Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() TRAIKLOFOX_ACQUIRE() {
        pthread_mutex_lock(&native_);
        noteLockAcquired(Rank, this);
    }
    bool tryLock() TRAIKLOFOX_TRY_ACQUIRE(true) {
        if (pthread_mutex_trylock(&native_) != 0) return false;
        noteLockAcquired(Rank, this);
        return true;
    }
    void unlock() TRAIKLOFOX_RELEASE() {
        noteLockReleased(Rank, this);
        pthread_mutex_unlock(&native_);
    }
    pthread_mutex_t* native() { return &native_; }

  private:
    pthread_mutex_t native_ = PTHREAD_MUTEX_INITIALIZER;
};

/// Holds a lock for a scope. Works for every class with `lock` and `unlock`.
template <class Lockable>
class TRAIKLOFOX_SCOPED_CAPABILITY LockGuard {
  public:
    explicit LockGuard(Lockable& lockable) TRAIKLOFOX_ACQUIRE(lockable) : lockable_(lockable) {
        lockable_.lock();
    }
    ~LockGuard() TRAIKLOFOX_RELEASE() { lockable_.unlock(); }
    LockGuard(const LockGuard&) = delete;
    LockGuard& operator=(const LockGuard&) = delete;

  private:
    Lockable& lockable_;
};

}  // namespace traiklofox::foundation
