#pragma once

#include <pthread.h>

#include <atomic>

namespace traiklofox::files {

/// One object for the process, made at first use and never destroyed: a thread may use it while the process exits.
/// The child of a `fork` makes another: who had locked this one, or was changing it, is not in the child.
template <class Data>
class RenewedInChild {
  public:
    static Data& get() {
        Data* data = current.load(std::memory_order_acquire);
        return data != nullptr ? *data : make();
    }

  private:
    static Data& make() {
        static const int registered = pthread_atfork(nullptr, nullptr, [] { current.store(nullptr); });
        (void)registered;  // without memory for it, a child has the old one
        auto* made = new Data;
        Data* present = nullptr;
        if (current.compare_exchange_strong(present, made, std::memory_order_acq_rel)) return *made;
        delete made;  // another thread was first
        return *present;
    }

    static inline constinit std::atomic<Data*> current{nullptr};
};

}  // namespace traiklofox::files
