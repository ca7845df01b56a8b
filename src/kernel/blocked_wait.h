#pragma once

// What the waits of every kind have in common.

#include <traiklofox/threads.h>
#include <traiklofox/wait.h>

#include <cerrno>
#include <new>

#include "foundation/deadline.h"
#include "foundation/sys.h"

namespace traiklofox::kernel {

/// The whole of a wait that has found nothing to take: `block(deadline, alertable)` blocks, until the deadline (null:
/// without limit). The calls for which it returns WAIT_IO_COMPLETION run once it has, for they may wait themselves.
/// No time to wait is a time-out at once; without limit a wait is never alertable.
template <class Block>
DWORD waitWithin(DWORD milliseconds, BOOL alertable, Block block) {
    if (milliseconds == 0) return WAIT_TIMEOUT;
    DWORD result = WAIT_FAILED;
    try {
        if (milliseconds == INFINITE) return block(/*deadline=*/nullptr, /*alertable=*/FALSE);
        const timespec deadline = foundation::deadlineAfter(sys::now(), milliseconds);
        result = block(&deadline, alertable);
    } catch (const std::bad_alloc&) {  // for what the thread keeps for its waits
        errno = ENOMEM;
    }
    if (alertable && result == WAIT_IO_COMPLETION) UserAPCCheck();
    return result;
}

}  // namespace traiklofox::kernel
