#pragma once

// What the rest of the kernel may do with a Thread that its callers may not.

#include <traiklofox/threads.h>

namespace traiklofox::kernel {

struct QueuedCall;

class ThreadLife {
  public:
    /// The calling thread's handle, made on demand for a thread that the library did not start.
    static Thread& current();
    /// Whether it is that handle. Makes none.
    static bool isCurrent(const Thread& thread);
    static CallQueue& callsOf(Thread& thread) { return *thread.calls; }
    /// `Thread::QueueAPC`. False: the thread has ended, and the call stays the caller's.
    static bool queue(Thread& thread, const QueuedCall& call);

    /// In the handler of the signal that interrupts a thread which has calls to run.
    static void noteCallSignal();

    /// Around a fork: the child finds its thread's own handle, if there is one, whole and free, whatever other
    /// threads were doing to it.
    static void lockOwnForFork();
    static void unlockOwnInParent();
    static void unlockOwnInChild();

    /// Stores the id of a thread that has just been created, unless it has stored its own, or has ended,
    /// already.
    static void started(Thread& thread, pthread_t id);
    /// Marks the thread finished, forgets its id and wakes every wait on it. Called by the thread's own exit.
    static void finish(Thread& thread);

  private:
    static bool finishUnlessSuspended(Thread& thread);
};

}  // namespace traiklofox::kernel
