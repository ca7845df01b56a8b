#pragma once

#include <traiklofox/events.h>

namespace traiklofox::kernel {

/// Holds an event's own lock for a scope.
class TRAIKLOFOX_SCOPED_CAPABILITY EventGuard {
  public:
    explicit EventGuard(Event& event) TRAIKLOFOX_ACQUIRE(event);
    ~EventGuard() TRAIKLOFOX_RELEASE();
    EventGuard(const EventGuard&) = delete;
    EventGuard& operator=(const EventGuard&) = delete;

  private:
    Event& event_;
};

}  // namespace traiklofox::kernel
