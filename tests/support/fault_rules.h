#pragma once

// What the wrapped functions ask the rules of fault_injection.h. Safe in signal handlers and between fork and
// exec: no lock, no allocation, errno kept.

#include <cstddef>
#include <ctime>

#include "support/fault_injection.h"

namespace traiklofox::test::faults {

/// Where a call acts: none, one or two paths, or a descriptor.
struct Target {
    const char* path = nullptr;
    const char* secondPath = nullptr;
    int fd = -1;
};

/// What is to become of one call.
struct Verdict {
    bool fails = false;
    int error = 0;
    size_t transferAtMost = SIZE_MAX;
    bool thenDies = false;
};

/// Counts the call with every matching rule, and ends the process where one says so.
Verdict judge(Call call, const Target& target);

/// Ends the process by SIGKILL.
[[noreturn]] void die();

/// The wall clock's reading when a FakeTime rules, from the real one.
timespec fakeWallClock(const timespec& real);
/// Likewise of the monotonic clock.
timespec fakeMonotonic(const timespec& real);

}  // namespace traiklofox::test::faults
