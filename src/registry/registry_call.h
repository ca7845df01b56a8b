#pragma once

#include <traiklofox/registry.h>

#include <cxxabi.h>

#include "registry/cache_lock.h"

namespace traiklofox::registry {

constexpr LONG kRegistryFailure = -1;

/// The exported edge: starts the registry, and lets no exception out.
template <class Body>
LONG registryCall(Body body, LONG failure = kRegistryFailure) {
    try {
        ensureStarted();
        return body();
    } catch (const abi::__forced_unwind&) {
        throw;  // pthread_cancel: swallowing it aborts the process
    } catch (...) {
        return failure;
    }
}

}  // namespace traiklofox::registry
