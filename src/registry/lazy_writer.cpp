// lazy_writer.cpp: a thread that turns many requests to write into one write an interval.

#include <traiklofox/registry.h>

#include <pthread.h>

#include <atomic>

#include "foundation/mutex.h"
#include "foundation/on_exit.h"
#include "foundation/sys.h"
#include "registry/cache_lock.h"
#include "registry/registry_writer.h"
#include "registry/write_request.h"

constinit int bLazyFlush = 0;
constinit int bRegistryFlushNeeded = 0;

namespace traiklofox::registry {

namespace {

constexpr DWORD kDefaultIntervalMs = 60'000;
constexpr DWORD kIdleNapMs = 1;  // with an interval of 0: soon enough, and no processor burnt

/// A sleep that the thread can be cancelled in.
class CancellableSleep {
  public:
    void sleep(DWORD milliseconds) {
        timespec end = sys::monotonic();
        end.tv_sec += static_cast<time_t>(milliseconds / 1000);
        end.tv_nsec += static_cast<long>(milliseconds % 1000) * 1'000'000;
        if (end.tv_nsec >= 1'000'000'000) {
            ++end.tv_sec;
            end.tv_nsec -= 1'000'000'000;
        }
        // On a condition that nobody signals: unlike from nanosleep, the thread sanitizer can follow a cancellation.
        const foundation::LockGuard guard(lock_);
        while (pthread_cond_clockwait(&never_, lock_.native(), CLOCK_MONOTONIC, &end) == 0) {
        }
    }

  private:
    foundation::Mutex<foundation::LockRank::Leaf> lock_;
    pthread_cond_t never_ = PTHREAD_COND_INITIALIZER;
};

bool takeFlushRequest() {
    return std::atomic_ref(bRegistryFlushNeeded).exchange(0, std::memory_order_acq_rel) != 0;
}

void writeRequested() {
    // Without the cache lock, which the write takes once it has its file. The request is taken before the write, so
    // that one made while it runs asks for the next one.
    if (takeFlushRequest() && !writeTree()) noteFlushNeeded();
}

}  // namespace

void noteFlushNeeded() {
    std::atomic_ref(bRegistryFlushNeeded).store(1, std::memory_order_release);
}

bool requestWrite() {
    if (std::atomic_ref(bLazyFlush).load(std::memory_order_acquire) == 0) return writeTree() != 0;
    noteFlushNeeded();
    return true;
}

}  // namespace traiklofox::registry

using namespace traiklofox::registry;

DWORD RegLazyWriteThread(void* interval) {
    ensureStarted();
    const DWORD milliseconds =
        interval != nullptr ? *static_cast<const DWORD*>(interval) : kDefaultIntervalMs;
    pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, nullptr);
    std::atomic_ref(bLazyFlush).store(1, std::memory_order_release);
    // Also when the thread is cancelled in its sleep: whoever changes something from now on writes it
    // himself.
    const auto lastAct = traiklofox::foundation::onExit([] {
        std::atomic_ref(bLazyFlush).store(0, std::memory_order_release);
        RegCleanup();
    });
    CancellableSleep nap;
    for (;;) {
        nap.sleep(milliseconds > 0 ? milliseconds : kIdleNapMs);
        if (std::atomic_ref(bRegistryFlushNeeded).load(std::memory_order_acquire) != 0) writeRequested();
    }
}

void RegCleanup() {
    (void)WriteRegistry();  // it has reported a failure; nobody is left to try again
}
