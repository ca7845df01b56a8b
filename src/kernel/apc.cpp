// apc.cpp: queueing calls to threads, and running them.

#include <traiklofox/threads.h>
#include <traiklofox/wait.h>

#include "foundation/hooks.h"
#include "kernel/call_queue.h"
#include "kernel/handle_arguments.h"
#include "kernel/thread_life.h"

using traiklofox::kernel::handleAs;
using traiklofox::kernel::ThreadLife;

namespace {

constexpr DWORD kNotQueued = 0xFFFFFFFF;

}  // namespace

DWORD QueueUserAPC(PAPCFUNC function, Handle* handle, ULONG_PTR data) {
    auto* thread = handleAs<Thread>(handle, HANDLE_KIND_THREAD);
    if (thread == nullptr || function == nullptr) return kNotQueued;
    thread->QueueAPC(function, reinterpret_cast<void*>(data), nullptr, nullptr);
    return 0;
}

int UserAPCCheck() {
    return ThreadLife::current().CheckAPC();
}

DWORD traiklofox::foundation::sleepAlertably(DWORD milliseconds) {
    Thread& self = ThreadLife::current();
    if (self.CheckAPC()) return WAIT_IO_COMPLETION;
    if (!ThreadLife::callsOf(self).sleepFor(milliseconds)) return 0;
    self.CheckAPC();
    return WAIT_IO_COMPLETION;
}
