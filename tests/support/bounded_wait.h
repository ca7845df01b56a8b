#pragma once

// Waits that have a bound, and counts of what a process holds.

#include <chrono>
#include <thread>

namespace traiklofox::test {

/// True as soon as `holds()` does; false when it does not within `bound`. For states that nothing announces:
/// where an event or a barrier can tell, wait for that.
template <class Predicate>
bool within(std::chrono::milliseconds bound, Predicate holds) {
    const auto deadline = std::chrono::steady_clock::now() + bound;
    while (!holds()) {
        if (std::chrono::steady_clock::now() >= deadline) return static_cast<bool>(holds());
        std::this_thread::sleep_for(std::chrono::milliseconds{1});
    }
    return true;
}
template <class Predicate>
bool withinSeconds(int seconds, Predicate holds) {
    return within(std::chrono::seconds{seconds}, holds);
}

/// Open descriptors of this process.
int openDescriptors();
/// Threads of this process, a sanitizer's own among them: compare two readings.
int threadCount();

}  // namespace traiklofox::test
