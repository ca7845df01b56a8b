#pragma once

/// Semaphores and mutexes.
///
/// Both are waited for alone, by `WaitForSingleObject` and `WaitForSingleObjectEx`. Unlike Win32: a wait on several
/// handles never sees them become free. One over semaphores alone or mutexes alone returns 0 at once and takes
/// nothing; one over several kinds is ended by its other handles, or by its time-out.

#include <traiklofox/handle.h>
#include <traiklofox/thread_safety.h>

#include <memory>
#include <string>

namespace traiklofox::kernel {
class ParkedThreads;
}  // namespace traiklofox::kernel

/// A count between 0 and a maximum. A wait takes 1 from it, and blocks while it is 0; a release adds to it.
///
/// Thread safety: any thread holding a reference may call any member. While nobody is blocked, a release and a wait
/// are one atomic step each. Waiters are woken in the order in which they came, but whoever finds the count above 0
/// takes from it. The child of a fork has the count, and none of the waiters.
class TRAIKLOFOX_API TRAIKLOFOX_CAPABILITY("semaphore") Semaphore : public Handle {
  public:
    /// 0 <= `initialCount` <= `greatestCount`; `CreateSemaphore` checks it. `givenName` is copied and only kept.
    Semaphore(LONG initialCount, LONG greatestCount, const char* givenName);
    ~Semaphore() override;

    DWORD What() const override;
    /// Takes 1 from the count, once it is above 0. A wait that reaches its time-out returns WAIT_TIMEOUT even when
    /// the count has just become positive, and takes nothing. A cancellation point when it blocks.
    DWORD WaitForHandle(DWORD milliseconds, BOOL alertable) override;

    /// Adds `amount` to the count, wakes as many waiters, and stores the count before in `*previous` when it is not
    /// null. Returns 1; or 0, with nothing changed or stored, when `amount` is negative or the sum would be above
    /// the maximum. An `amount` of 0 changes nothing.
    BOOL Release(LONG amount, LONG* previous);

  protected:
    /// Takes 1 from the count if it is above 0.
    bool tryTake() {
        DWORD seen = state.load(std::memory_order_relaxed);
        while (countIn(seen) > 0) {
            if (state.compare_exchange_weak(seen, seen - 1, std::memory_order_acq_rel,
                                            std::memory_order_relaxed))
                return true;
        }
        return false;
    }
    /// Gives back 1 to a count of 0 when nobody waits.
    bool tryGiveBack() {
        DWORD taken = 0;
        return state.compare_exchange_strong(taken, 1, std::memory_order_acq_rel, std::memory_order_relaxed);
    }
    /// Waits for a count above 0, which was not there just now.
    DWORD waitToTake(DWORD milliseconds, BOOL alertable);

  private:
    class Section;
    class Waiter;

    static constexpr DWORD kWatched = 0x8000'0000;  // in `state`, beside the count: threads wait
    static constexpr LONG countIn(DWORD seen) { return static_cast<LONG>(seen & ~kWatched); }

    void noteWaiters() TRAIKLOFOX_REQUIRES(this);
    DWORD block(const timespec* deadline, BOOL alertable);
    BOOL releaseToWaiters(LONG amount, LONG* previous);

    std::atomic<DWORD> state;  // the count, and whether anybody waits; see semaphore.cpp
    const LONG maxCount;
    pthread_mutex_t lock;
    const std::unique_ptr<traiklofox::kernel::ParkedThreads> waiters TRAIKLOFOX_PT_GUARDED_BY(this);
    const std::string name;
};

/// A lock with an owner, who may take it again and releases it as often.
///
/// Unlike Win32: a mutex whose owner ends stays locked.
class TRAIKLOFOX_API Mutex : public Semaphore {
  public:
    /// With `initialOwner`, the calling thread counts as owner, but the mutex is free: another thread's first wait
    /// takes it at once, and ends that ownership. Until then the caller's own waits succeed without taking it, and a
    /// release of the last of them returns 0. Kept so for its callers.
    Mutex(BOOL initialOwner, const char* givenName);
    ~Mutex() override;

    DWORD What() const override;
    /// Takes the mutex, or goes one level deeper when the caller owns it.
    DWORD WaitForHandle(DWORD milliseconds, BOOL alertable) override;

    /// Goes up one level, and at the outermost one frees the mutex. Returns 1, or 0 when the calling thread does not
    /// own it.
    BOOL Release();

  private:
    std::atomic<pthread_t> owner;  // holds the count; only its own thread can find itself there
    LONG recursion;                // the owner's
    std::atomic<pthread_t> initialOwner;
    LONG initialRecursion;  // the initial owner's
};

/// Makes a semaphore; the caller owns its first reference. `attributes` is ignored. `name` may be null. Returns null
/// unless 0 <= `initialCount` <= `maxCount`. Any thread may call it; an allocation failure is thrown as
/// `std::bad_alloc`.
///
/// Unlike Win32: `maxCount` may be 0, errno says nothing, and two semaphores of one name are unrelated.
TRAIKLOFOX_C_API Handle* CreateSemaphore(_SECURITY_ATTRIBUTES* attributes, LONG initialCount, LONG maxCount,
                                         const char* name);

/// `Semaphore::Release` for a count of at least 1. Returns 0, with nothing changed or stored, for a smaller one, for a
/// handle that is no semaphore, and when the sum would be above the maximum.
TRAIKLOFOX_C_API BOOL ReleaseSemaphore(Handle* semaphore, LONG count, LONG* previous);

/// Makes a mutex; the caller owns its first reference. `attributes` is ignored. `name` may be null. Never returns
/// null: an allocation failure is thrown as `std::bad_alloc`.
///
/// Unlike Win32: `initialOwner` locks nobody out (see `Mutex`), and two mutexes of one name are unrelated.
TRAIKLOFOX_C_API Handle* CreateMutex(_SECURITY_ATTRIBUTES* attributes, BOOL initialOwner, const char* name);

/// `Mutex::Release`. Returns 0 for a handle that is no mutex, and when the calling thread does not own it.
TRAIKLOFOX_C_API BOOL ReleaseMutex(Handle* mutex);
