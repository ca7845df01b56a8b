#pragma once

// A mutex of four bytes whose uncontended lock and unlock are one inlined atomic operation each, for locks that
// stand in every object of a large number, or on the hottest paths. No condition variable goes with it.

#include <traiklofox/thread_safety.h>

#include <atomic>
#include <cstdint>

#include "foundation/lock_rank.h"
#include "foundation/sys.h"

namespace traiklofox::foundation {

template <LockRank Rank>
class TRAIKLOFOX_CAPABILITY("mutex") SmallMutex {
  public:
    constexpr SmallMutex() = default;
    SmallMutex(const SmallMutex&) = delete;
    SmallMutex& operator=(const SmallMutex&) = delete;

    void lock() TRAIKLOFOX_ACQUIRE() {
        std::int32_t free = kFree;
        if (!word_.compare_exchange_strong(free, kTaken, std::memory_order_acquire,
                                           std::memory_order_relaxed)) [[unlikely]]
            waitAndLock();
        noteLockAcquired(Rank, this);
    }
    void unlock() TRAIKLOFOX_RELEASE() {
        noteLockReleased(Rank, this);
        if (word_.exchange(kFree, std::memory_order_release) == kAwaited) [[unlikely]]
            sys::futexWakeOne(word_);
    }

    // For a fork, which takes more of them than the check of the order can hold.
    void lockUnchecked() TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
        if (word_.exchange(kAwaited, std::memory_order_acquire) != kFree) waitAndLock();
    }
    void unlockUnchecked() TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
        word_.store(kFree, std::memory_order_release);
        sys::futexWakeOne(word_);
    }

  private:
    static constexpr std::int32_t kFree = 0;
    static constexpr std::int32_t kTaken = 1;
    static constexpr std::int32_t kAwaited = 2;  // taken, and somebody may sleep

    [[gnu::noinline]] void waitAndLock() {
        // Whoever has waited takes it as awaited, since he cannot know whether he was the only one.
        while (word_.exchange(kAwaited, std::memory_order_acquire) != kFree)
            (void)sys::futexWait(word_, kAwaited, nullptr);
    }

    std::atomic<std::int32_t> word_{kFree};
};

}  // namespace traiklofox::foundation
