// system_command.cpp: running a command with the shell.

#include <traiklofox/process.h>

#include <csignal>

#include "foundation/mutex.h"
#include "foundation/on_exit.h"
#include "foundation/sys.h"
#include "kernel/child_records.h"
#include "kernel/inherited_start.h"

namespace sys = traiklofox::sys;

using traiklofox::foundation::LockGuard;
using traiklofox::foundation::LockRank;

namespace {

constexpr char kShell[] = "/bin/sh";
constexpr int kNoProcess = 127;
constexpr int kNoShell = 127 << 8;  // as `waitpid` reports an exit with 127

constinit traiklofox::foundation::Mutex<LockRank::Leaf> actionLock;
constinit int commandsRunning TRAIKLOFOX_GUARDED_BY(actionLock) = 0;
struct sigaction actionBefore TRAIKLOFOX_GUARDED_BY(actionLock);

/// A fork happens outside of the lock. The commands that run are the parent's: the child gets the handler back.
void guardForks() {
    static constinit pthread_once_t once = PTHREAD_ONCE_INIT;
    (void)pthread_once(&once, [] {  // cannot fail
        const auto lock = [] { pthread_mutex_lock(actionLock.native()); };
        const auto unlock = [] { pthread_mutex_unlock(actionLock.native()); };
        const auto unlockInChild = []() TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
            if (commandsRunning > 0) (void)sigaction(SIGCHLD, &actionBefore, nullptr);
            commandsRunning = 0;
            pthread_mutex_unlock(actionLock.native());
        };
        (void)pthread_atfork(lock, unlock, unlockInChild);
    });
}

/// Keeps SIGCHLD from the application's handler while commands run. Not by SIG_IGN, under which the kernel throws
/// away the status of every child of the process that ends meanwhile.
class ChildSignalSetAside {
  public:
    ChildSignalSetAside() {
        guardForks();
        const LockGuard guard(actionLock);
        if (commandsRunning++ > 0) return;
        struct sigaction byDefault {};
        byDefault.sa_handler = SIG_DFL;
        (void)sigaction(SIGCHLD, &byDefault, &actionBefore);  // cannot fail for this signal
    }
    ~ChildSignalSetAside() {
        const LockGuard guard(actionLock);
        if (--commandsRunning == 0) (void)sigaction(SIGCHLD, &actionBefore, nullptr);
    }
    ChildSignalSetAside(const ChildSignalSetAside&) = delete;
    ChildSignalSetAside& operator=(const ChildSignalSetAside&) = delete;
};

}  // namespace

int System(const char* command) {
    if (command == nullptr) return -1;
    const ChildSignalSetAside setAside;
    // The words are only read: `execve` takes them as it does for the sake of old programs.
    char* const words[] = {const_cast<char*>("sh"), const_cast<char*>("-c"), const_cast<char*>(command),
                           nullptr};
    const auto started = traiklofox::kernel::startInherited(kShell, words);
    if (!started) return kNoProcess;
    if (*started < 0) return kNoShell;

    // A thread that is cancelled in the wait leaves the child to the library.
    auto collectLater = traiklofox::foundation::onExit([pid = *started] {
        traiklofox::kernel::ChildRecords::adopt(pid);
        (new Process(pid))->DecRefCount();
    });
    int status = 0;
    const pid_t collected = sys::waitpid(*started, &status, 0);
    collectLater.dismiss();
    return collected == *started ? status : -1;
}
