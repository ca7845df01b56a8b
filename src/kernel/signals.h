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

/// Keeps the calling thread from being suspended for a scope, after which a suspension that came takes effect.
class SuspensionDeferred {
  public:
    SuspensionDeferred() {
        sigset_t suspend;
        sigemptyset(&suspend);
        sigaddset(&suspend, suspendSignal());
        pthread_sigmask(SIG_BLOCK, &suspend, &saved_);
    }
    ~SuspensionDeferred() { pthread_sigmask(SIG_SETMASK, &saved_, nullptr); }
    SuspensionDeferred(const SuspensionDeferred&) = delete;
    SuspensionDeferred& operator=(const SuspensionDeferred&) = delete;

    /// Whether the thread could not be suspended before either.
    bool wasBlocked() const { return sigismember(&saved_, suspendSignal()) == 1; }

  private:
    sigset_t saved_;
};

/// Installs the handlers of the three.
void installSignalHandlers();

}  // namespace traiklofox::kernel
