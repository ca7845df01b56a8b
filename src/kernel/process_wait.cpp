// process_wait.cpp: waits on processes alone.

#include <traiklofox/process.h>
#include <traiklofox/threads.h>
#include <traiklofox/wait.h>

#include <vector>

#include "foundation/on_exit.h"
#include "kernel/descriptor_poll.h"
#include "kernel/handle_arguments.h"
#include "kernel/process_life.h"

using traiklofox::foundation::onExit;
using traiklofox::kernel::isNone;
using traiklofox::kernel::ProcessLife;

using Presence = ProcessLife::Presence;

namespace {

constexpr DWORD kGoOn = WAIT_TIMEOUT;  // which no wait on processes returns

/// One wait, and the entries whose processes it has not reported.
class ProcessWait {
  public:
    ProcessWait(Handle** handles, BOOL waitAll) : handles_(handles), waitsForAll_(waitAll != 0) {}

    /// Takes in the array. Returns the result when there is nothing to wait for, else kGoOn.
    DWORD begin(DWORD count, DWORD milliseconds) {
        for (DWORD i = 0; i < count; ++i) {
            if (isNone(handles_[i])) continue;
            auto& process = *static_cast<Process*>(handles_[i]);
            if (ProcessLife::isThisProcess(process)) return WAIT_FAILED;
            const Presence presence = ProcessLife::look(process);
            if (presence == Presence::Gone && (!waitsForAll_ || milliseconds == 0)) return WAIT_OBJECT_0 + i;
            running_.push_back({i, &process, presence});
        }
        return running_.empty() ? WAIT_FAILED : kGoOn;
    }

    /// Notes the ends that have been seen. Returns the result when they are enough, else kGoOn.
    DWORD report() {
        for (auto waited = running_.begin(); waited != running_.end();) {
            if (waited->presence == Presence::Running) {
                ++waited;
                continue;
            }
            const DWORD index = waited->index;
            ProcessLife::noteEnd(*waited->process);
            handles_[index] = nullptr;
            waited = running_.erase(waited);
            if (!waitsForAll_ || running_.empty()) return WAIT_OBJECT_0 + index;
        }
        return kGoOn;
    }

    /// Sleeps until something may have ended, and looks. True: calls are queued to this thread.
    bool sleep(BOOL alertable) {
        polled_.clear();
        bool mustLook = false;
        for (const Waited& waited : running_) {
            polled_.push_back({ProcessLife::descriptorOf(*waited.process), POLLIN, 0});
            if (polled_.back().fd < 0) mustLook = true;
        }
        if (traiklofox::kernel::pollOrCalls(polled_, mustLook ? ProcessLife::kLookEveryMs : -1, alertable))
            return true;
        for (size_t i = 0; i < running_.size(); ++i) {
            if (polled_[i].revents != 0 || polled_[i].fd < 0)
                running_[i].presence = ProcessLife::look(*running_[i].process);
        }
        return false;
    }

  private:
    struct Waited {
        DWORD index;
        Process* process;
        Presence presence;
    };

    Handle** const handles_;
    const bool waitsForAll_;
    std::vector<Waited> running_;
    std::vector<pollfd> polled_;
};

}  // namespace

DWORD Process::WaitForHandle(DWORD milliseconds, BOOL alertable) {
    Handle* self = this;
    return WaitForMultipleHandles(1, &self, /*waitAll=*/TRUE, milliseconds, alertable);
}

DWORD Process::WaitForMultipleHandles(DWORD count, Handle** handles, BOOL waitAll, DWORD milliseconds,
                                      BOOL alertable) {
    const auto keepErrno = onExit([saved = errno] { errno = saved; });
    if (handles == nullptr) return WAIT_FAILED;
    ProcessWait wait(handles, waitAll);
    DWORD result = wait.begin(count, milliseconds);
    while (result == kGoOn) {
        if (alertable && UserAPCCheck() != 0) return WAIT_IO_COMPLETION;
        result = wait.report();
        if (result == kGoOn) (void)wait.sleep(alertable);  // calls run at the top
    }
    return result;
}
