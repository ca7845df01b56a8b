// thread_context.cpp: what each thread keeps for itself, and how it is freed when the thread ends.

#include <traiklofox/events.h>
#include <traiklofox/threads.h>

#include "foundation/hooks.h"
#include "kernel/call_queue.h"
#include "kernel/startup.h"
#include "kernel/thread_life.h"

namespace {

constinit pthread_key_t ThreadContextKey = 0;  // made before any thread of the application runs

void ThreadContextKeyDestructor(void* record) {
    auto* context = static_cast<ThreadContext*>(record);
    if (context->thread != nullptr) {
        traiklofox::kernel::ThreadLife::finish(*context->thread);
        HandleClose(context->thread);
    }
    HandleClose(context->multiEvent);
    HandleClose(context->notification);
    delete context->randomSeed;
    delete context;
}

}  // namespace

namespace traiklofox::kernel {

namespace {

/// The calling thread's handle, if it has been made.
Thread* ownThread() {
    const auto* context = static_cast<const ThreadContext*>(pthread_getspecific(ThreadContextKey));
    return context != nullptr ? context->thread : nullptr;
}

}  // namespace

bool ThreadLife::isCurrent(const Thread& thread) {
    return ownThread() == &thread;
}

void ThreadLife::noteCallSignal() {
    if (const Thread* own = ownThread()) own->calls->signalArrived();
}

void ThreadLife::lockOwnForFork() {
    if (const Thread* own = ownThread()) own->calls->lockForFork();
}

void ThreadLife::unlockOwnInParent() {
    if (const Thread* own = ownThread()) own->calls->unlockAfterFork();
}

// The state lock cannot be taken before the fork, for a thread must not be suspended while it holds its own. Whoever
// had it in the parent is not here.
void ThreadLife::unlockOwnInChild() TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
    Thread* own = ownThread();
    if (own == nullptr) return;
    own->lock = PTHREAD_MUTEX_INITIALIZER;
    own->idUses = 0;
    own->suspendCount = 0;
    own->calls->signalArrived();  // what is on its way to the parent, a suspension too, does not come here
    own->calls->unlockAfterFork();
}

void createThreadContextKey() {
    pthread_key_create(&ThreadContextKey, ThreadContextKeyDestructor);
}

}  // namespace traiklofox::kernel

ThreadContext* GetThreadContext() {
    if (void* present = pthread_getspecific(ThreadContextKey)) return static_cast<ThreadContext*>(present);
    auto* context = new ThreadContext{};
    pthread_setspecific(ThreadContextKey, context);
    return context;
}

unsigned int& traiklofox::foundation::threadRandomSeed() {
    ThreadContext& context = *GetThreadContext();
    if (context.randomSeed == nullptr)
        context.randomSeed = new unsigned int(static_cast<unsigned int>(pthread_self()));
    return *context.randomSeed;
}
