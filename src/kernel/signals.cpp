#include "kernel/signals.h"

#include <traiklofox/threads.h>

#include <cerrno>

#include "kernel/thread_life.h"

namespace {

extern "C" void UserAPCHandler(int) {
    traiklofox::kernel::ThreadLife::noteCallSignal();
}

extern "C" void SuspendHandler(int) {
    const int savedErrno = errno;
    sigset_t resume;
    sigemptyset(&resume);
    sigaddset(&resume, traiklofox::kernel::resumeSignal());
    int received = 0;
    do {
        (void)sigwait(&resume, &received);  // again until it is the one
    } while (received != traiklofox::kernel::resumeSignal());
    errno = savedErrno;
}

extern "C" void ResumeHandler(int) {}

void install(int signalNumber, void (*handler)(int), int blockedMeanwhile) {
    struct sigaction action {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    if (blockedMeanwhile != 0) sigaddset(&action.sa_mask, blockedMeanwhile);
    (void)sigaction(signalNumber, &action, nullptr);  // cannot fail for these signals
}

}  // namespace

namespace traiklofox::kernel {

void installSignalHandlers() {
    sigset_t resume;
    sigemptyset(&resume);
    sigaddset(&resume, resumeSignal());
    pthread_sigmask(SIG_BLOCK, &resume, nullptr);
    install(callSignal(), UserAPCHandler, 0);
    install(suspendSignal(), SuspendHandler, 0);
    install(resumeSignal(), ResumeHandler, suspendSignal());
}

}  // namespace traiklofox::kernel

void UserAPCInit() {
    traiklofox::kernel::installSignalHandlers();
}
