#include "kernel/inherited_start.h"

#include "foundation/on_exit.h"
#include "foundation/sys.h"
#include "kernel/signals.h"

namespace traiklofox::kernel {

std::optional<pid_t> startInherited(const char* program, char* const* words) {
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, /*set=*/nullptr, &mask);
    sigdelset(&mask, SIGCHLD);
    sigdelset(&mask, resumeSignal());

    posix_spawnattr_t attributes;
    int error = posix_spawnattr_init(&attributes);
    if (error == 0) {
        const auto destroyAttributes = foundation::onExit([&] { posix_spawnattr_destroy(&attributes); });
        (void)posix_spawnattr_setsigmask(&attributes, &mask);  // these two cannot fail with valid arguments
        (void)posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
        pid_t pid = -1;
        error = sys::posixSpawn(&pid, program, &attributes, words);
        if (error == 0) return pid;
    }
    if (error != EAGAIN && error != ENOMEM) return -1;
    errno = error;
    return std::nullopt;
}

}  // namespace traiklofox::kernel
