#pragma once

// The real-time signals that the library uses.

#include <csignal>

namespace traiklofox::kernel {

/// Interrupts a blocking call of a thread that has calls to run.
inline int callSignal() {
    return __libc_current_sigrtmin();
}
/// Stops the receiving thread inside its handler ...
inline int suspendSignal() {
    return __libc_current_sigrtmin() + 1;
}
/// ... until this one arrives there.
inline int resumeSignal() {
    return __libc_current_sigrtmin() + 2;
}

/// Installs the handlers of the three.
void installSignalHandlers();

}  // namespace traiklofox::kernel
