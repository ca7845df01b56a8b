#pragma once

#include <traiklofox/types.h>

#include <vector>

#include "foundation/sys.h"

namespace traiklofox::kernel {

/// Sleeps until one of the descriptors is ready, `milliseconds` have passed (-1: without limit), a signal handler
/// has run or, when alertable, calls are queued to this thread. True: calls are queued, for the caller to run.
/// A cancellation point.
bool pollOrCalls(std::vector<pollfd>& polled, int milliseconds, BOOL alertable);

}  // namespace traiklofox::kernel
