// process_watcher.cpp: the watch set and its thread.
//
// The thread sleeps on a condition while the set is empty, and otherwise in a poll of the processes' descriptors,
// which a call queued to it ends when the set has changed. What the poll reports is only a hint, because the set
// may have changed since: whatever it says is looked at again under the lock.

#include "kernel/process_watcher.h"

#include <traiklofox/threads.h>

#include <new>
#include <set>
#include <vector>

#include "foundation/mutex.h"
#include "kernel/descriptor_poll.h"
#include "kernel/process_life.h"
#include "kernel/signals.h"

namespace traiklofox::kernel {

using foundation::LockGuard;
using Presence = ProcessLife::Presence;

namespace {

constinit foundation::Mutex<foundation::LockRank::ProcessWatch> watchLock;
constinit pthread_cond_t setIsNotEmpty = PTHREAD_COND_INITIALIZER;
constinit Handle* watcher TRAIKLOFOX_GUARDED_BY(watchLock) = nullptr;
constinit bool isPolling TRAIKLOFOX_GUARDED_BY(watchLock) = false;

std::set<Process*>& watched() TRAIKLOFOX_REQUIRES(watchLock) {
    static auto& all = *new std::set<Process*>;
    return all;
}

void justWake(void*, void*, void*) {}

void wakeThread() TRAIKLOFOX_REQUIRES(watchLock) {
    if (isPolling) {
        (void)QueueUserAPC(justWake, watcher, 0);  // the thread never ends
    } else {
        pthread_cond_signal(&setIsNotEmpty);
    }
}

/// A copy of the set, to poll. Sleeps while the set is empty.
struct Polling {
    std::vector<Process*> processes;  // not to be touched before they are found in the set again
    std::vector<pollfd> descriptors;
    bool mustLook = false;  // at one that has no descriptor

    void copySet() {
        processes.clear();
        descriptors.clear();
        mustLook = false;
        const LockGuard guard(watchLock);
        isPolling = false;
        while (watched().empty()) pthread_cond_wait(&setIsNotEmpty, watchLock.native());
        isPolling = true;
        for (Process* process : watched()) {
            processes.push_back(process);
            descriptors.push_back({ProcessLife::descriptorOf(*process), POLLIN, 0});
            if (descriptors.back().fd < 0) mustLook = true;
        }
    }
};

/// Ends the watching of a process that is still in the set and has really ended.
void reportEnd(Process* process) {
    {
        const LockGuard guard(watchLock);
        if (watched().count(process) == 0) return;
        const Presence presence = ProcessLife::look(*process);
        if (presence == Presence::Running) return;
        if (presence == Presence::Ended) ProcessLife::noteEnd(*process);
        watched().erase(process);
        ProcessLife::registered(*process) = 0;
    }
    process->Signal();
    process->DecRefCount();
}

DWORD watchProcesses(void*) {
    Polling polling;
    for (;;) {
        polling.copySet();
        if (pollOrCalls(polling.descriptors, polling.mustLook ? ProcessLife::kLookEveryMs : -1, TRUE))
            UserAPCCheck();
        for (size_t i = 0; i < polling.processes.size(); ++i) {
            if (polling.descriptors[i].revents != 0 || polling.descriptors[i].fd < 0)
                reportEnd(polling.processes[i]);
        }
    }
}

bool startThreadLocked() TRAIKLOFOX_REQUIRES(watchLock) {
    if (watcher == nullptr) {
        const SignalsBlocked inherited;  // the application's signals are for its own threads
        watcher = CreateThread(/*attributes=*/nullptr, /*stackSize=*/0, watchProcesses, /*argument=*/nullptr,
                               /*flags=*/0, /*threadId=*/nullptr);
    }
    return watcher != nullptr;
}

}  // namespace

bool ProcessWatcher::watch(Process& process) {
    const LockGuard guard(watchLock);
    if (!startThreadLocked()) return false;
    if (ProcessLife::registered(process) != 0) return true;
    watched().insert(&process);
    ProcessLife::registered(process) = 1;
    process.IncRefCount();
    wakeThread();
    return true;
}

bool ProcessWatcher::unwatch(Process& process) {
    const LockGuard guard(watchLock);
    if (ProcessLife::registered(process) == 0) return false;
    ProcessLife::registered(process) = 0;
    watched().erase(&process);
    wakeThread();
    return true;
}

// The set's reference to a handle that nobody else has: when the child ends, it goes, and finds the child ready.
void ProcessWatcher::collectAtEnd(int pid) noexcept {
    try {
        auto* process = new Process(pid);
        (void)ProcessLife::look(*process);  // gives it a descriptor
        const LockGuard guard(watchLock);
        watched().insert(process);
        ProcessLife::registered(*process) = 1;
        if (startThreadLocked()) wakeThread();  // otherwise whoever next makes the thread finds it in the set
    } catch (const std::bad_alloc&) {
        return;  // it stays uncollected until this process ends
    }
}

bool ProcessWatcher::startThread() {
    const LockGuard guard(watchLock);
    return startThreadLocked();
}

// The natives, unchecked: a thread may fork inside a section of its own events.
void ProcessWatcher::lockForFork() TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
    pthread_mutex_lock(watchLock.native());
}

void ProcessWatcher::unlockAfterFork() TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
    pthread_mutex_unlock(watchLock.native());
}

void ProcessWatcher::restartInForkedChild() TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
    watcher = nullptr;
    isPolling = false;
    setIsNotEmpty = PTHREAD_COND_INITIALIZER;  // the thread that may have slept on it is not here
    pthread_mutex_unlock(watchLock.native());
}

}  // namespace traiklofox::kernel
