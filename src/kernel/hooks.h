#pragma once

// What the kernel needs from the floors above it.

#include <traiklofox/types.h>

class Event;

namespace traiklofox::kernel {

/// Called by the destructor of an event that still carries the handle of a registry key. Defined in
/// registry/change_notification.cpp.
void withdrawRegistryNotification(LONG keyHandle, Event* event);

}  // namespace traiklofox::kernel
