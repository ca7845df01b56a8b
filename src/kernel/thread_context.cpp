// thread_context.cpp: what each thread keeps for itself, and how it is freed when the thread ends.

#include <traiklofox/events.h>
#include <traiklofox/threads.h>

#include "foundation/hooks.h"
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

bool ThreadLife::isCurrent(const Thread& thread) {
    const auto* context = static_cast<const ThreadContext*>(pthread_getspecific(ThreadContextKey));
    return context != nullptr && context->thread == &thread;
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
