#pragma once

// What the kernel needs from the floors above it.

#include <traiklofox/types.h>

class Event;
class Handle;

namespace traiklofox::kernel {

/// Called by the destructor of an event that still carries the handle of a registry key. Defined in
/// registry/change_notification.cpp.
void withdrawRegistryNotification(LONG keyHandle, Event* event);

/// Called by `DuplicateHandle` and, before the reference is dropped, by `CloseHandle`, for a handle of kind
/// HANDLE_KIND_CHANGE_NOTIFICATION: the directory scanner has a reference, too, which it drops when the last owner
/// closes the handle. Defined in files/change_notification.cpp.
void noteDuplicated(Handle& changeNotification);
void noteClosing(Handle& changeNotification);

}  // namespace traiklofox::kernel
