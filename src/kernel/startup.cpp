#include "kernel/startup.h"

#include <traiklofox/events.h>
#include <traiklofox/settings.h>

#include <csignal>

#include "foundation/lock_rank.h"
#include "kernel/child_records.h"
#include "kernel/fork_generation.h"
#include "kernel/process_watcher.h"
#include "kernel/signals.h"
#include "kernel/thread_life.h"
#include "kernel/timers_at_fork.h"

namespace traiklofox::kernel {

namespace {

/// The end of a child is looked up and not signalled, so no thread need be interrupted by it; inside the server
/// process the application decides.
void blockChildSignal() {
    if (bRunningInServer) return;
    sigset_t child;
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    pthread_sigmask(SIG_BLOCK, &child, nullptr);
}

// A fork happens outside what these locks guard, so that the child finds it whole and free.
void lockForFork() {
    ProcessWatcher::lockForFork();
    TimersAtFork::lock();
    Event::Lock();
    ChildRecords::lockForFork();
    ThreadLife::lockOwnForFork();
}

void unlockInParent() {
    ThreadLife::unlockOwnInParent();
    ChildRecords::unlockAfterFork();
    Event::Unlock();
    TimersAtFork::unlock();
    ProcessWatcher::unlockAfterFork();
}

void unlockInChild() {
    ForkGeneration::beginInChild();
    ThreadLife::unlockOwnInChild();
    ChildRecords::forgetInForkedChild();
    Event::Unlock();
    TimersAtFork::forgetInChild();
    ProcessWatcher::restartInForkedChild();
}

}  // namespace

void startKernel() {
    createThreadContextKey();
    blockChildSignal();
    installSignalHandlers();
    pthread_atfork(lockForFork, unlockInParent, unlockInChild);
}

}  // namespace traiklofox::kernel
