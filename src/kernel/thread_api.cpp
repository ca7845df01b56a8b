// thread_api.cpp: creating threads, and the functions over the Thread kind.

#include <traiklofox/assertions.h>
#include <traiklofox/events.h>
#include <traiklofox/threads.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>

#include "foundation/on_exit.h"
#include "kernel/handle_arguments.h"
#include "kernel/thread_life.h"

using traiklofox::foundation::onExit;
using traiklofox::kernel::handleAs;
using traiklofox::kernel::ThreadLife;

constinit int ThreadScopeState = 0;
constinit int ThreadStackSize = 131072;
constinit const pthread_t NULL_PTHREAD = 0;

namespace {

struct ThreadArgs {
    LPTHREAD_START_ROUTINE start;
    void* argument;
    Thread* thread;  // with the reference that the new thread keeps
};

Thread* threadOf(Handle* handle) {
    return handleAs<Thread>(handle, HANDLE_KIND_THREAD);
}

int reportCreation(const char* function, int error) {
    if (error != 0)
        std::fprintf(stderr, "%s: pthread_create failed, err=%s\n", function, std::strerror(error));
    return error;
}

/// TW_THREAD_STACK_SIZE in bytes; 0 when it is not set to a number above 0.
size_t configuredStackSize() {
    const char* text = std::getenv("TW_THREAD_STACK_SIZE");
    if (text == nullptr) return 0;
    const long thousands = std::strtol(text, nullptr, 10);
    constexpr long kMost = 2'000'000;  // fits a 32-bit size
    return thousands > 0 && thousands <= kMost ? static_cast<size_t>(thousands) * 1000 : 0;
}

}  // namespace

Thread& ThreadLife::current() {
    ThreadContext& context = *GetThreadContext();
    if (context.thread == nullptr) context.thread = new Thread(pthread_self());
    return *context.thread;
}

Handle* CreateThread(_SECURITY_ATTRIBUTES*, SIZE_T, LPTHREAD_START_ROUTINE start, void* argument, DWORD,
                     ULONG_PTR* threadId) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    const auto destroyAttributes = onExit([&] { pthread_attr_destroy(&attributes); });
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_attr_setscope(&attributes, ThreadScopeState);

    Thread* thread = nullptr;
    std::unique_ptr<ThreadArgs> arguments;
    try {
        arguments = std::make_unique<ThreadArgs>(ThreadArgs{start, argument, nullptr});
        thread = arguments->thread = new Thread(/*id=*/0);
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return nullptr;
    }
    thread->IncRefCount();
    pthread_t unwanted{};
    pthread_t& id = threadId != nullptr ? *threadId : unwanted;  // stored before the thread runs
    const int error = pthread_create(&id, &attributes, KzThreadBase, arguments.get());
    if (error != 0) {
        thread->DecRefCount();
        thread->DecRefCount();
        errno = error;
        return nullptr;
    }
    (void)arguments.release();  // the new thread frees them
    ThreadLife::started(*thread, id);
    return thread;
}

void* KzThreadBase(void* untyped) {
    const std::unique_ptr<ThreadArgs> arguments(static_cast<ThreadArgs*>(untyped));
    ThreadContext& context = *GetThreadContext();
    std::set_terminate(kz_abort);
    HandleClose(context.thread);
    context.thread = arguments->thread;
    ThreadLife::started(*arguments->thread, pthread_self());
    const LPTHREAD_START_ROUTINE start = arguments->start;
    void* const argument = arguments->argument;
    return reinterpret_cast<void*>(static_cast<ULONG_PTR>(start(argument)));
}

int unixthread_create(pthread_t* thread, pthread_attr_t* attributes, void* (*start)(void*), void* argument) {
    return reportCreation("unixthread_create", pthread_create(thread, attributes, start, argument));
}

int unixthread_create_detached(void* (*start)(void*), void* argument) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    const auto destroyAttributes = onExit([&] { pthread_attr_destroy(&attributes); });
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    if (const size_t size = configuredStackSize()) (void)pthread_attr_setstacksize(&attributes, size);
    pthread_t id{};
    return reportCreation("unixthread_create_detached", pthread_create(&id, &attributes, start, argument));
}

Handle* GetCurrentThread() {
    return &ThreadLife::current();
}

ULONG_PTR GetCurrentThreadId() {
    return pthread_self();
}

void ExitThread(DWORD) {
    pthread_exit(nullptr);
}

BOOL TerminateThread(Handle*, DWORD) {
    return 1;
}

DWORD SuspendThread(Handle* handle) {
    Thread* thread = threadOf(handle);
    return static_cast<DWORD>(thread != nullptr ? thread->Suspend() : -1);
}

DWORD ResumeThread(Handle* handle) {
    Thread* thread = threadOf(handle);
    return static_cast<DWORD>(thread != nullptr ? thread->Resume() : -1);
}

int GetThreadPriority(Handle* handle) {
    Thread* thread = threadOf(handle);
    return thread != nullptr ? thread->GetPriority() : ESRCH;
}

int SetThreadPriority(Handle* handle, int priority) {
    Thread* thread = threadOf(handle);
    return thread != nullptr ? thread->SetPriority(priority) : ESRCH;
}
