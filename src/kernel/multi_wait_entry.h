#pragma once

#include <traiklofox/events.h>

namespace traiklofox::kernel {

/// One event of a multiple wait: a link in the event's list of the waits that include it.
struct MultiWaitEntry {
    Event* event = nullptr;  // null where the caller's array has a null entry
    MultiEvent* owner = nullptr;
    LONG index = -1;
    MultiWaitEntry* previous = nullptr;
    MultiWaitEntry* next = nullptr;
};

}  // namespace traiklofox::kernel
