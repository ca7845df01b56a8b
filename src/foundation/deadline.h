#pragma once

// When a timed wait ends, as an absolute time of the clock that `now` was read from.

#include <sys/time.h>
#include <traiklofox/types.h>

#include <limits>

namespace traiklofox::foundation {

/// `now` plus `milliseconds`. Where these have a part below a second, `now` counts as rounded up to the next
/// whole millisecond; otherwise its microseconds are kept. A time beyond what `time_t` holds is its last
/// second.
inline timespec deadlineAfter(timeval now, DWORD milliseconds) {
    const DWORD millis = milliseconds % 1000;
    long long seconds = static_cast<long long>(now.tv_sec) + milliseconds / 1000;
    long nanoseconds = static_cast<long>(now.tv_usec) * 1000;
    if (millis != 0) {
        const long rounded = (nanoseconds + 999'999) / 1'000'000 + static_cast<long>(millis);
        seconds += rounded / 1000;
        nanoseconds = rounded % 1000 * 1'000'000;
    }
    constexpr long long kLast = std::numeric_limits<time_t>::max();  // in 2038 where time_t has 32 bits
    timespec deadline{};
    deadline.tv_sec = static_cast<time_t>(seconds < kLast ? seconds : kLast);
    deadline.tv_nsec = nanoseconds;
    return deadline;
}

}  // namespace traiklofox::foundation
