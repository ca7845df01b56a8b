// lazy_writer.cpp: a thread that turns many requests to write into one write an interval.

#include <traiklofox/clocks.h>
#include <traiklofox/registry.h>

#include <pthread.h>

#include <atomic>

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
constexpr timespec kIdleNap{0, 1'000'000};  // with an interval of 0: soon enough, and no processor burnt

bool takeFlushRequest() {
    return std::atomic_ref(bRegistryFlushNeeded).exchange(0, std::memory_order_acq_rel) != 0;
}

/// Keeps the thread from being cancelled for a scope: a write that has begun ends.
class CancellationOff {
  public:
    CancellationOff() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
    ~CancellationOff() { pthread_setcancelstate(before_, nullptr); }
    CancellationOff(const CancellationOff&) = delete;
    CancellationOff& operator=(const CancellationOff&) = delete;

  private:
    int before_ = PTHREAD_CANCEL_ENABLE;
};

void writeRequested() {
    const CancellationOff off;
    const CacheLockGuard guard;
    // Taken before the write, so that a request made while it runs asks for the next one.
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
    for (;;) {
        if (milliseconds > 0) {
            SleepEx(milliseconds, FALSE);
        } else {
            pthread_testcancel();
            (void)traiklofox::sys::nanosleep(kIdleNap, nullptr);
        }
        if (std::atomic_ref(bRegistryFlushNeeded).load(std::memory_order_acquire) != 0) writeRequested();
    }
}

void RegCleanup() {
    (void)WriteRegistry();  // it has reported a failure; nobody is left to try again
}
