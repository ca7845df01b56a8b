#pragma once

// What a forked child finds in an object that threads of its parent were using: their places in its lists, and its lock
// held by one that is not there. Nobody can wait for them before a fork, for some sleep there for ever. So the object
// remembers the process that it was last used in, and is renewed by the first use in another.

#include <atomic>

#include "foundation/mutex.h"

namespace traiklofox::kernel {

class ForkGeneration {
  public:
    using Number = unsigned short;  // small, because it stands in each of many objects

    /// How many forks lie between this process and the first one.
    static Number current() { return current_.load(std::memory_order_relaxed); }
    /// In the child of a fork, before it uses any object.
    static void beginInChild() TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
        current_.fetch_add(1, std::memory_order_relaxed);
        *renewal_.native() = PTHREAD_MUTEX_INITIALIZER;
    }

    /// Calls `renew`, once for all threads, if the object of that generation is from before a fork.
    template <class Renew>
    static void enter(std::atomic<Number>& generation, Renew renew) {
        if (generation.load(std::memory_order_acquire) != current()) [[unlikely]]
            renewOnce(generation, renew);
    }

  private:
    template <class Renew>
    [[gnu::noinline, gnu::cold]] static void renewOnce(std::atomic<Number>& generation, Renew renew) {
        const foundation::LockGuard guard(renewal_);
        if (generation.load(std::memory_order_relaxed) == current()) return;
        renew();
        generation.store(current(), std::memory_order_release);
    }

    static constinit inline std::atomic<Number> current_{0};
    static constinit inline foundation::Mutex<foundation::LockRank::Leaf> renewal_;
};

}  // namespace traiklofox::kernel
