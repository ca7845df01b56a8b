#include "kernel/descriptor_poll.h"

#include "kernel/call_queue.h"
#include "kernel/signals.h"
#include "kernel/thread_life.h"

namespace traiklofox::kernel {

namespace {

constexpr timespec kRetry{0, 10'000'000};

void poll(std::vector<pollfd>& polled, int milliseconds, const sigset_t* mask) {
    const timespec limit{milliseconds / 1000, milliseconds % 1000 * 1'000'000L};
    const timespec* timeout = milliseconds < 0 ? nullptr : &limit;
    if (sys::ppoll(polled.data(), polled.size(), timeout, mask) >= 0 || errno == EINTR) return;
    // Too many at once, or no memory. The callers look for themselves at what is said to be ready.
    (void)sys::nanosleep(kRetry, /*remaining=*/nullptr);
    for (pollfd& each : polled) each.revents = POLLERR;
}

}  // namespace

bool pollOrCalls(std::vector<pollfd>& polled, int milliseconds, BOOL alertable) {
    for (pollfd& each : polled) each.revents = 0;
    if (!alertable) {
        poll(polled, milliseconds, /*mask=*/nullptr);
        return false;
    }
    // From the look at the queue on, the signal that tells of a call is let through in the sleep alone: one that
    // came between the two would be missed.
    CallQueue& queue = ThreadLife::callsOf(ThreadLife::current());
    const SignalsBlocked untilAsleep(callSignal());
    if (queue.pending()) return true;
    sigset_t asleep = untilAsleep.saved();
    sigdelset(&asleep, callSignal());
    poll(polled, milliseconds, &asleep);
    return queue.pending();
}

}  // namespace traiklofox::kernel
