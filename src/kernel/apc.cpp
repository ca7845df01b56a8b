// apc.cpp: queueing calls to threads, and running them.

#include <traiklofox/threads.h>
#include <traiklofox/wait.h>

#include <cerrno>
#include <new>

#include "foundation/hooks.h"
#include "foundation/sys.h"
#include "kernel/call_queue.h"
#include "kernel/handle_arguments.h"
#include "kernel/thread_life.h"

namespace sys = traiklofox::sys;

using traiklofox::kernel::AlertableSleep;
using traiklofox::kernel::CallQueue;
using traiklofox::kernel::handleAs;
using traiklofox::kernel::SleepPlace;
using traiklofox::kernel::ThreadLife;

namespace {

constexpr DWORD kNotQueued = 0xFFFFFFFF;

timespec later(timespec time, DWORD milliseconds) {
    constexpr long kNanosecondsPerSecond = 1'000'000'000;
    time.tv_sec += static_cast<time_t>(milliseconds / 1000);
    time.tv_nsec += static_cast<long>(milliseconds % 1000) * 1'000'000;
    if (time.tv_nsec >= kNanosecondsPerSecond) {
        ++time.tv_sec;
        time.tv_nsec -= kNanosecondsPerSecond;
    }
    return time;
}

/// Sleeps until then at most. True: a call has been queued, or a signal handler has run.
bool isCalledUntil(Thread& self, const timespec& end) {
    CallQueue& calls = ThreadLife::callsOf(self);
    for (;;) {
        int error = 0;
        {
            const AlertableSleep sleep(SleepPlace::in(self, calls.parker()));
            if (sleep.callsPending()) return true;
            error = calls.parker().parkUntil(end);
        }
        if (error != 0) return error == EINTR || calls.pending();
    }
}

/// The sleep of a thread without a handle, and no memory for one: nobody can queue a call to it.
DWORD sleepAlone(DWORD milliseconds) {
    const int error = errno;
    timespec rest = later({}, milliseconds);
    const bool isInterrupted = sys::nanosleep(rest, &rest) != 0;
    errno = error;
    return isInterrupted ? WAIT_IO_COMPLETION : 0;
}

}  // namespace

DWORD QueueUserAPC(PAPCFUNC function, Handle* handle, ULONG_PTR data) {
    auto* thread = handleAs<Thread>(handle, HANDLE_KIND_THREAD);
    if (thread == nullptr) return kNotQueued;
    try {
        thread->QueueAPC(function, reinterpret_cast<void*>(data), nullptr, nullptr);
        return 0;
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return kNotQueued;
    }
}

int UserAPCCheck() {
    return ThreadLife::current().CheckAPC();
}

DWORD traiklofox::foundation::sleepAlertably(DWORD milliseconds) {
    const timespec end = later(sys::monotonic(), milliseconds);
    Thread* self = nullptr;
    try {
        self = &ThreadLife::current();
    } catch (const std::bad_alloc&) {
        return sleepAlone(milliseconds);
    }
    if (self->CheckAPC()) return WAIT_IO_COMPLETION;
    if (!isCalledUntil(*self, end)) return 0;
    self->CheckAPC();
    return WAIT_IO_COMPLETION;
}
