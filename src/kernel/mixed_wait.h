#pragma once

#include <traiklofox/handle.h>

namespace traiklofox::kernel {

/// The wait on handles of several kinds, by the events that stand for them: also for a kind that has no other wait on
/// several handles.
DWORD waitMixed(DWORD count, Handle** handles, BOOL waitAll, DWORD milliseconds, BOOL alertable);

}  // namespace traiklofox::kernel
