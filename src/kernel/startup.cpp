#include "kernel/startup.h"

#include <traiklofox/events.h>
#include <traiklofox/settings.h>

#include <csignal>

#include "foundation/lock_rank.h"
#include "kernel/signals.h"

namespace traiklofox::kernel {

namespace {

/// Processes are waited for by collecting SIGCHLD, so no thread may receive it; inside the server process the
/// application decides.
void blockChildSignal() {
    if (bRunningInServer) return;
    sigset_t child;
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    pthread_sigmask(SIG_BLOCK, &child, nullptr);
}

}  // namespace

void startKernel() {
    createThreadContextKey();
    blockChildSignal();
    installSignalHandlers();
    // A fork happens outside the event section, so that the child finds it free.
    pthread_atfork(Event::Lock, Event::Unlock, Event::Unlock);
}

}  // namespace traiklofox::kernel
