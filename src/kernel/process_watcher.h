#pragma once

// The thread that watches processes, and its watch set. A process in the set has a reference from it until it
// ends; then the thread sets the event that stands for it in waits on several kinds.

#include <traiklofox/process.h>

namespace traiklofox::kernel {

class ProcessWatcher {
  public:
    /// Puts the process into the set, unless it is there. False: the thread cannot be made.
    static bool watch(Process& process);
    /// Takes it out. True: it was there, and the set's reference is the caller's to drop.
    [[nodiscard]] static bool unwatch(Process& process);
    /// Sees to it that a child that no handle names any more is collected when it ends.
    static void collectAtEnd(int pid) noexcept;

    /// Makes the thread unless it is there. False: it cannot be made.
    static bool startThread();

    /// Around a fork. The child has the set but not the thread, which is made again when it is needed.
    static void lockForFork();
    static void unlockAfterFork();
    static void restartInForkedChild();
};

}  // namespace traiklofox::kernel
