// process_watcher.cpp: the watch set and its thread.
//
// The thread sleeps on an epoll of the processes' descriptors, which whoever changes the set changes with it, without
// waking the thread. What the epoll reports is only a hint, because the set may have changed since: whatever it
// names is looked at again under the lock. Processes that it cannot take in are looked at in intervals; for the
// first of those the thread is woken, by a call queued to it.

#include "kernel/process_watcher.h"

#include <traiklofox/threads.h>

#include <array>
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
constinit Handle* watcher TRAIKLOFOX_GUARDED_BY(watchLock) = nullptr;
constinit int ends TRAIKLOFOX_GUARDED_BY(watchLock) = -1;  // the epoll

std::set<Process*>& watched() TRAIKLOFOX_REQUIRES(watchLock) {
    static auto& all = *new std::set<Process*>;
    return all;
}

/// Those of the set that the epoll has not.
std::set<Process*>& lookedAt() TRAIKLOFOX_REQUIRES(watchLock) {
    static auto& all = *new std::set<Process*>;
    return all;
}

void justWake(void*, void*, void*) {}

/// So that a process that is named by a stale hint, or none, never keeps the thread busy: each reports once.
bool pollFor(Process& process) TRAIKLOFOX_REQUIRES(watchLock) {
    epoll_event once{};
    once.events = EPOLLIN | EPOLLONESHOT;
    once.data.ptr = &process;
    const int fd = ProcessLife::descriptorOf(process);
    return fd >= 0 && ends >= 0 && sys::epollControl(ends, EPOLL_CTL_ADD, fd, &once) == 0;
}

void addLocked(Process& process) TRAIKLOFOX_REQUIRES(watchLock) {
    watched().insert(&process);
    ProcessLife::registered(process) = 1;
    if (pollFor(process)) return;
    lookedAt().insert(&process);
    if (watcher != nullptr && lookedAt().size() == 1)
        (void)QueueUserAPC(justWake, watcher, 0);  // it never ends
}

void removeLocked(Process& process) TRAIKLOFOX_REQUIRES(watchLock) {
    watched().erase(&process);
    ProcessLife::registered(process) = 0;
    if (lookedAt().erase(&process) == 0)
        (void)sys::epollControl(ends, EPOLL_CTL_DEL, ProcessLife::descriptorOf(process), nullptr);
}

/// Makes the epoll unless it is there, and moves into it what it can take.
void openEpollLocked() TRAIKLOFOX_REQUIRES(watchLock) {
    if (ends >= 0 || (ends = sys::epollCreate()) < 0) return;
    for (Process* process : watched()) {
        if (pollFor(*process))
            lookedAt().erase(process);
        else
            lookedAt().insert(process);
    }
}

/// Ends the watching of a process that is still in the set and has really ended.
void reportEnd(Process* process) {
    {
        const LockGuard guard(watchLock);
        if (watched().count(process) == 0) return;
        const Presence presence = ProcessLife::look(*process);
        if (presence == Presence::Running) return;
        if (presence == Presence::Ended) ProcessLife::noteEnd(*process);
        removeLocked(*process);
    }
    process->Signal();
    process->DecRefCount();
}

/// The thread's own copies, of processes that are not to be touched before they are found in the set again.
struct Hints {
    std::vector<pollfd> epoll = std::vector<pollfd>(1);
    std::vector<Process*> processes;
    int interval = -1;

    void sleep() {
        {
            const LockGuard guard(watchLock);
            openEpollLocked();
            epoll[0] = {ends, POLLIN, 0};
            interval = lookedAt().empty() && ends >= 0 ? -1 : ProcessLife::kLookEveryMs;
        }
        if (pollOrCalls(epoll, interval, TRUE)) UserAPCCheck();
    }

    void gather() {
        std::array<epoll_event, 64> events;
        const int count =
            epoll[0].revents == 0 ? 0 : sys::epollTake(epoll[0].fd, events.data(), events.size());
        processes.clear();
        for (int i = 0; i < count; ++i)
            processes.push_back(static_cast<Process*>(events[static_cast<size_t>(i)].data.ptr));
        const LockGuard guard(watchLock);
        if (count < 0) ends = -1;  // the application has closed it
        processes.insert(processes.end(), lookedAt().begin(), lookedAt().end());
    }
};

DWORD watchProcesses(void*) {
    Hints hints;
    for (;;) {
        hints.sleep();
        hints.gather();
        for (Process* process : hints.processes) reportEnd(process);
    }
}

bool startThreadLocked() TRAIKLOFOX_REQUIRES(watchLock) {
    if (watcher == nullptr) {
        openEpollLocked();
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
    addLocked(process);
    process.IncRefCount();
    return true;
}

bool ProcessWatcher::unwatch(Process& process) {
    const LockGuard guard(watchLock);
    if (ProcessLife::registered(process) == 0) return false;
    removeLocked(process);
    return true;
}

// The set's reference to a handle that nobody else has: when the child ends, it goes, and finds the child ready.
void ProcessWatcher::collectAtEnd(int pid) noexcept {
    try {
        auto* process = new Process(pid);
        (void)ProcessLife::look(*process);  // gives it a descriptor
        const LockGuard guard(watchLock);
        (void)startThreadLocked();  // otherwise whoever next makes the thread finds it in the set
        addLocked(*process);
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
    (void)sys::UniqueFd(ends);  // the parent's, whose changes the child must not make
    ends = -1;
    pthread_mutex_unlock(watchLock.native());
}

}  // namespace traiklofox::kernel
