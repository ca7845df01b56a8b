// Sleeping, the millisecond clocks and deadlines.

#include <traiklofox/clocks.h>

#include <errno.h>
#include <sched.h>

#include "foundation/deadline.h"
#include "foundation/hooks.h"
#include "foundation/millisecond_clock.h"
#include "foundation/sys.h"

namespace foundation = traiklofox::foundation;
namespace sys = traiklofox::sys;

namespace {

constexpr DWORD kMillisPerSecond = 1000;

constinit foundation::MillisecondClock milliClock;

void sleepWhole(DWORD milliseconds) {
    timespec rest{};
    rest.tv_sec = static_cast<time_t>(milliseconds / kMillisPerSecond);
    rest.tv_nsec = static_cast<long>(milliseconds % kMillisPerSecond) * 1'000'000;
    const int error = errno;
    while (sys::nanosleep(rest, &rest) == -1 && errno == EINTR) continue;
    errno = error;
}

}  // namespace

DWORD SleepEx(DWORD milliseconds, BOOL alertable) {
    if (milliseconds == 0) {
        sched_yield();
        return 0;
    }
    if (alertable) return foundation::sleepAlertably(milliseconds);
    sleepWhole(milliseconds);
    return 0;
}

void Sleep(DWORD milliseconds) {
    (void)SleepEx(milliseconds, /*alertable=*/FALSE);  // always 0
}

DWORD GetTickCount() {
    const timeval now = sys::now();
    return static_cast<DWORD>(now.tv_sec) * kMillisPerSecond + static_cast<DWORD>(now.tv_usec) / 1000;
}

ULONGLONG GetMilliTime() {
    return milliClock.read(GetTickCount);
}

ULONGLONG GetTickCount64() {
    return GetMilliTime();
}

ULONGLONG GetElapsedTime(ULONGLONG since) {
    return GetMilliTime() - since;
}

void FixTimeout(timespec& deadline, LONG milliseconds) {
    const bool wholeSecond = milliseconds >= static_cast<LONG>(kMillisPerSecond);
    deadline = foundation::deadlineAfter(sys::now(), wholeSecond ? static_cast<DWORD>(milliseconds) : 0);
}
