#pragma once

// The processes of a run.

#include <cstddef>

namespace traiklofox::soak {

/// A TEST_ROLE, and how many play it: the steady ones from the start to the end, so that they show what grows; the
/// others are killed at any moment and begin again where they were.
struct WorkerRow {
    const char* role;
    size_t steady;
    size_t mortal;
};
constexpr WorkerRow kWorkers[] = {
    {"writer", 1, 3}, {"lazyWriter", 1, 1}, {"reader", 1, 1},
    {"kernel", 1, 1}, {"files", 1, 1},      {"dates", 1, 1},
};
/// The writers have the first slots, then come the lazy ones.
constexpr size_t kWriters = kWorkers[0].steady + kWorkers[0].mortal;
constexpr size_t kLazyWriters = kWorkers[1].steady + kWorkers[1].mortal;
/// The mapping in which all that use files count.
constexpr const char* kMapping = "soak";

}  // namespace traiklofox::soak
