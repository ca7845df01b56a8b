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

/// Blocks one signal, or every one, in the calling thread for a scope.
class SignalsBlocked {
  public:
    SignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, &saved_);
    }
    explicit SignalsBlocked(int signalNumber) {
        sigset_t one;
        sigemptyset(&one);
        sigaddset(&one, signalNumber);
        pthread_sigmask(SIG_BLOCK, &one, &saved_);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &saved_, nullptr); }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

    /// The mask before.
    const sigset_t& saved() const { return saved_; }

  private:
    sigset_t saved_;
};

/// Keeps the calling thread from being suspended for a scope, after which a suspension that came takes effect.
class SuspensionDeferred {
  public:
    SuspensionDeferred() : blocked_(suspendSignal()) {}

    /// Whether the thread could not be suspended before either.
    bool wasBlocked() const { return sigismember(&blocked_.saved(), suspendSignal()) == 1; }

  private:
    const SignalsBlocked blocked_;
};

/// Installs the handlers of the three.
void installSignalHandlers();

}  // namespace traiklofox::kernel
