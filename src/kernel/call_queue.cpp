#include "kernel/call_queue.h"

#include "foundation/on_exit.h"
#include "foundation/sys.h"
#include "kernel/thread_life.h"

namespace traiklofox::kernel {

using foundation::LockGuard;

namespace {

long long monotonicNanoseconds() {
    const timespec now = sys::monotonic();
    return static_cast<long long>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

}  // namespace

CallQueue::Push CallQueue::push(const QueuedCall& call, bool byItself) {
    const LockGuard guard(lock_);
    calls_.push_back(call);
    if (byItself) due_ = calls_.size();
    if (sleepsAt_.keepAlive != nullptr) {
        sleepsAt_.keepAlive->IncRefCount();
        return {Wake::Sleeper, sleepsAt_};
    }
    if (futexSleep_.exchange(0, std::memory_order_relaxed) == 1) return {Wake::Futex};
    // One that is on its way arrives after this call has been queued, and so ends what it would end.
    return {idle_ && !signalled_.exchange(true, std::memory_order_acq_rel) ? Wake::Signal : Wake::Nothing};
}

void CallQueue::endSleep(const Push& pushed) {
    if (pushed.wake == Wake::Futex) sys::futexWakeOne(futexSleep_);
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
    return true;
}

bool CallQueue::pending() {
    const LockGuard guard(lock_);
    idle_ = calls_.empty();
    return !idle_;
}

size_t CallQueue::size() const {
    const LockGuard guard(lock_);
    return calls_.size();
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

bool CallQueue::beginFutexSleep() {
    const LockGuard guard(lock_);
    if (!calls_.empty()) return false;
    futexSleep_.store(1, std::memory_order_relaxed);
    return true;
}

bool CallQueue::endFutexSleep() {
    const LockGuard guard(lock_);
    futexSleep_.store(0, std::memory_order_relaxed);
    return !calls_.empty();
}

bool CallQueue::sleepFor(DWORD milliseconds) {
    const auto keepErrno = foundation::onExit([saved = errno] { errno = saved; });
    const long long start = monotonicNanoseconds();
    const long long length = static_cast<long long>(milliseconds) * 1'000'000;
    for (long long slept = 0; slept < length; slept = monotonicNanoseconds() - start) {
        if (!beginFutexSleep()) return true;
        const timespec rest{static_cast<time_t>((length - slept) / 1'000'000'000),
                            static_cast<long>((length - slept) % 1'000'000'000)};
        const int error = sys::futexWait(futexSleep_, 1, &rest);
        if (endFutexSleep() || error == EINTR) return true;
    }
    return false;
}

AlertableSleep::AlertableSleep(const SleepPlace& place)
    : queue_(ThreadLife::callsOf(ThreadLife::current())), published_(queue_.publishSleep(place)) {}

AlertableSleep::~AlertableSleep() {
    if (published_) queue_.withdrawSleep();
}

}  // namespace traiklofox::kernel
