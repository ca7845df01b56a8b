#include "kernel/child_start.h"

#include <climits>
#include <csignal>

namespace traiklofox::kernel {

namespace {

constexpr int kExecFailed = 127;  // as a shell says it; the parent reads why from the pipe

/// Lets the kernel kill the calling child unless it has its program in time: only that removes the timer. The
/// parent of a child that shares its memory could not do it.
void killIfLate() {
    sigevent kill{};
    kill.sigev_notify = SIGEV_SIGNAL;
    kill.sigev_signo = SIGKILL;
    int timer = 0;
    // The system calls themselves: the C library keeps a record of each timer.
    if (::syscall(SYS_timer_create, CLOCK_MONOTONIC, &kill, &timer) != 0) return;
    itimerspec late{};
    late.it_value.tv_sec = kStartPatienceMs / 1000;
    (void)::syscall(SYS_timer_settime, timer, 0, &late, nullptr);  // without it a hanging start hangs
}

void closeAllBut(int kept, int limit) {
    const auto number = static_cast<unsigned int>(kept);
    constexpr unsigned int kFirst = STDERR_FILENO + 1;
    const bool below = number == kFirst || sys::closeRange(kFirst, number - 1) == 0;
    if (below && sys::closeRange(number + 1, UINT_MAX) == 0) return;
    for (int fd = kFirst; fd < limit; ++fd) {
        if (fd != kept) (void)sys::close(fd);  // most are not open
    }
}

void resetSignals() {
    sigset_t pending;
    sigemptyset(&pending);
    (void)::sigpending(&pending);
    struct sigaction action {};
    for (int number = 1; number < NSIG; ++number) {
        if (sigismember(&pending, number) == 1) {  // ignoring it takes it back
            action.sa_handler = SIG_IGN;
            (void)::sigaction(number, &action, nullptr);
        }
        action.sa_handler = SIG_DFL;
        (void)::sigaction(number, &action, nullptr);  // refused for those that have no other
    }
    sigset_t none;
    sigemptyset(&none);
    (void)::sigprocmask(SIG_SETMASK, &none, nullptr);
}

/// As `SecurityToken::InvokeSecurityToken`, but for this process alone: the C library's functions look for other
/// threads to change with it.
bool become(const Owner& owner) {
#if defined(SYS_setgid32)
    constexpr long kSetGroup = SYS_setgid32;
    constexpr long kSetUser = SYS_setuid32;
#else
    constexpr long kSetGroup = SYS_setgid;
    constexpr long kSetUser = SYS_setuid;
#endif
    return ::syscall(kSetGroup, owner.group) == 0 && ::syscall(kSetUser, owner.user) == 0;
}

/// Returns only when something fails, with errno.
void execute(const StartPlan& plan, int statusPipe) {
    if (!plan.streams.place()) return;
    closeAllBut(statusPipe, plan.descriptorLimit);
    if (plan.newSession) (void)::setsid();  // fails only in the leader of a group, which no new process is
    resetSignals();
    if (plan.directory != nullptr && sys::chdir(plan.directory) != 0) return;
    [[maybe_unused]] const int rootIsRoot =
        ::chroot("/");  // a right that few have, and nothing depends on it
    if (plan.owner) {
        if (plan.givesStreams) plan.streams.giveTo(plan.owner->user, plan.owner->group);
        if (!become(*plan.owner)) return;
    }
    ::execv(plan.command.words()[0], plan.command.words());
}

void collect(pid_t child) {
    int status = 0;
    (void)sys::waitpid(child, &status, 0);  // how it ended is known
}

bool isLate(const timespec& begin) {
    const timespec now = sys::monotonic();
    const long long took = (static_cast<long long>(now.tv_sec) - begin.tv_sec) * 1000 +
                           (now.tv_nsec - begin.tv_nsec) / 1'000'000;
    return took >= kStartPatienceMs;
}

/// Waits a little for the end: the kernel lets the parent of a child that shares its memory go on before the child that
/// it kills can be collected. One that has its program at the last moment runs on.
bool isKilled(pid_t child) {
    constexpr int kPatienceMs = 1000;
    for (int ms = 0; ms < kPatienceMs; ++ms) {
        siginfo_t end{};
        if (sys::waitid(P_PID, static_cast<id_t>(child), &end, WEXITED | WNOHANG | WNOWAIT) != 0)
            return false;
        if (end.si_pid == child) return end.si_code == CLD_KILLED && end.si_status == SIGKILL;
        const timespec aMillisecond{0, 1'000'000};
        (void)sys::ppoll(nullptr, 0, &aMillisecond, /*mask=*/nullptr);
    }
    return false;
}

}  // namespace

[[gnu::noinline]] void becomeProgram(const StartPlan& plan, int statusPipe) {
    if (plan.memory == ChildMemory::Shared) killIfLate();
    execute(plan, statusPipe);
    const int error = errno;
    (void)sys::writeAll(statusPipe, &error, sizeof error);  // the parent reads, or is gone
    ::_exit(kExecFailed);
}

StartResult awaitStart(pid_t child, int statusPipe, ChildMemory memory, const timespec& begin) {
    // Where memory is shared the answer is there already. It is not waited for, because another thread may have
    // forked a process that keeps the pipe open.
    const timespec patience{memory == ChildMemory::Shared ? 0 : kStartPatienceMs / 1000, 0};
    pollfd polled{statusPipe, POLLIN, 0};
    const int ready =
        sys::retryInterrupted([&] { return sys::ppoll(&polled, 1, &patience, /*mask=*/nullptr); });
    int error = 0;
    if (ready > 0 && sys::read(statusPipe, &error, sizeof error) == sizeof error) {
        collect(child);
        return {StartResult::Failed, error};
    }
    const bool hangs = ready == 0 && memory == ChildMemory::Copied;
    if (hangs) (void)sys::kill(child, SIGKILL);  // it has not been collected, so it is there
    if (hangs || (isLate(begin) && isKilled(child))) {
        collect(child);
        return {StartResult::Hung};
    }
    return {StartResult::Running};
}

}  // namespace traiklofox::kernel
