#pragma once

// What the foundation needs from the kernel above it. Defined in kernel/apc.cpp and
// kernel/thread_context.cpp.

#include <traiklofox/types.h>

namespace traiklofox::foundation {

/// Sleeps until `milliseconds` have passed or a call is queued to this thread, runs the queued calls, and
/// returns 0 or WAIT_IO_COMPLETION. Defined in kernel/apc.cpp.
DWORD sleepAlertably(DWORD milliseconds);

/// The calling thread's random seed, kept in its context record. Defined in kernel/thread_context.cpp.
unsigned int& threadRandomSeed();

}  // namespace traiklofox::foundation
