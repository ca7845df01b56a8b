#pragma once

#include <pthread.h>

namespace traiklofox::registry {

/// Keeps the thread from being cancelled for a scope: what it has begun with the registry's files it ends, and no
/// destructor on the way, such as that of a descriptor, finds itself cancelled.
class CancellationOff {
  public:
    CancellationOff() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
    ~CancellationOff() { pthread_setcancelstate(before_, nullptr); }
    CancellationOff(const CancellationOff&) = delete;
    CancellationOff& operator=(const CancellationOff&) = delete;

  private:
    int before_ = PTHREAD_CANCEL_ENABLE;
};

}  // namespace traiklofox::registry
