#include "kernel/call_queue.h"

#include "kernel/thread_life.h"

namespace traiklofox::kernel {

using foundation::LockGuard;

// The last reference to the thread is gone, and with it everybody who might use the queue.
CallQueue::~CallQueue() TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
    for (const QueuedCall& call : calls_)
        if (call.discard != nullptr) call.discard(call.a);
}

CallQueue::Push CallQueue::push(const QueuedCall& call, bool byItself) {
    const LockGuard guard(lock_);
    calls_.push_back(call);
    size_.store(calls_.size(), std::memory_order_relaxed);
    if (byItself) due_ = calls_.size();
    if (sleepsAt_.keepAlive != nullptr) {
        sleepsAt_.keepAlive->IncRefCount();
        return {Wake::Sleeper, sleepsAt_};
    }
    // One that is on its way arrives after this call has been queued, and so ends what it would end.
    return {idle_ && !signalled_.exchange(true, std::memory_order_acq_rel) ? Wake::Signal : Wake::Nothing};
}

void CallQueue::endSleep(const Push& pushed) {
    if (pushed.wake != Wake::Sleeper) return;
    pushed.place.wake(pushed.place.place);
    pushed.place.keepAlive->DecRefCount();
}

bool CallQueue::pop(QueuedCall& call, bool first) {
    const LockGuard guard(lock_);
    if (first) {
        idle_ = calls_.empty();
        due_ = calls_.size();
    }
    if (due_ == 0) return false;
    --due_;
    call = calls_.front();
    calls_.pop_front();
    size_.store(calls_.size(), std::memory_order_relaxed);
    return true;
}

bool CallQueue::pending() {
    const LockGuard guard(lock_);
    idle_ = calls_.empty();
    return !idle_;
}

// The natives, unchecked: a fork takes the locks of all ranks, and this one last.
void CallQueue::lockForFork() const TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
    pthread_mutex_lock(lock_.native());
}

void CallQueue::unlockAfterFork() const TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
    pthread_mutex_unlock(lock_.native());
}

bool CallQueue::publishSleep(const SleepPlace& place) {
    const LockGuard guard(lock_);
    idle_ = calls_.empty();
    if (!idle_) return false;
    sleepsAt_ = place;
    return true;
}

void CallQueue::withdrawSleep() {
    const LockGuard guard(lock_);
    sleepsAt_ = {};
}

AlertableSleep::AlertableSleep(const SleepPlace& place)
    : queue_(ThreadLife::callsOf(ThreadLife::current())), published_(queue_.publishSleep(place)) {}

AlertableSleep::~AlertableSleep() {
    if (published_) queue_.withdrawSleep();
}

}  // namespace traiklofox::kernel
