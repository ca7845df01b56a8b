// spawn.cpp: starts programs.
//
// The child is forked by `vfork`: it shares this process's memory until it executes its program, so a start costs a
// large server no more than a small one, and no other thread's lock can be found taken. In return the child must
// be left alone: no signal handler and no cancellation may run in it, for they would run in the parent's memory.
// A child that changes its user gets a copy of the memory instead, because the kernel makes the memory of a
// process that does so unreadable, and it would be the parent's, too.

#include <traiklofox/process.h>

#include <pthread.h>

#include <new>

#include "kernel/child_records.h"
#include "kernel/child_start.h"
#include "kernel/handle_arguments.h"
#include "kernel/signals.h"

namespace traiklofox::kernel {

namespace {

using sys::UniqueFd;

/// A start's way to report: both ends close-on-exec, and neither one of the standard descriptors, which the child
/// replaces.
class StatusPipe {
  public:
    StatusPipe() {
        int ends[2];
        if (sys::pipe(ends) != 0) return;
        readEnd_ = aboveStandard(ends[0]);
        writeEnd_ = aboveStandard(ends[1]);
    }
    explicit operator bool() const { return readEnd_ && writeEnd_; }
    int readEnd() const { return readEnd_.get(); }
    int writeEnd() const { return writeEnd_.get(); }
    void closeWriteEnd() { writeEnd_.reset(); }

  private:
    static UniqueFd aboveStandard(int fd) {
        UniqueFd owned(fd);
        return fd > STDERR_FILENO ? std::move(owned) : UniqueFd(sys::duplicateAboveStandard(fd));
    }

    UniqueFd readEnd_;
    UniqueFd writeEnd_;
};

/// Keeps signals and cancellation from the calling thread for a scope.
class Undisturbed {
  public:
    Undisturbed() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelState_); }
    ~Undisturbed() { pthread_setcancelstate(cancelState_, nullptr); }
    Undisturbed(const Undisturbed&) = delete;
    Undisturbed& operator=(const Undisturbed&) = delete;

  private:
    const SignalsBlocked signalsBlocked_;
    int cancelState_ = PTHREAD_CANCEL_ENABLE;
};

/// Forks; the child runs `body`, which does not return. Neither runs the handlers around a fork: they lock what a
/// child that goes on to its program never touches.
template <class Body>
[[gnu::noinline]] pid_t forkInto(ChildMemory memory, const Body& body) {
    const pid_t pid = memory == ChildMemory::Shared ? ::vfork() : ::_Fork();
    if (pid == 0) body();
    return pid;
}

/// What the process between this one and a detached one reports.
struct DetachedReport {
    pid_t pid;  // -1: it failed; 0: it hung
    int error;
};

struct Started {
    pid_t pid;  // -1: it failed, with errno
    bool hung = false;
};

Started failed(int error) {
    errno = error;
    return {-1};
}

/// The process between: starts the detached one, reports, and leaves it to the system's first process.
[[noreturn, gnu::noinline]] void startDetached(const StartPlan& plan, const StatusPipe& status,
                                               const StatusPipe& own) {
    const timespec begin = sys::monotonic();
    const pid_t pid = forkInto(plan.memory, [&] { becomeProgram(plan, status.writeEnd()); });
    DetachedReport report{pid, errno};
    if (pid > 0) {
        (void)sys::close(status.writeEnd());  // not by its owner, which may be the parent's
        const StartResult result = awaitStart(pid, status.readEnd(), plan.memory, begin);
        if (result.outcome == StartResult::Failed) report = {-1, result.error};
        if (result.outcome == StartResult::Hung) report = {0, 0};
    }
    (void)sys::writeAll(own.writeEnd(), &report, sizeof report);  // the parent misses it if it fails
    ::_exit(0);
}

/// Waits longer than the process between, which keeps the time.
bool isReadable(int fd) {
    const timespec patience{2 * kStartPatienceMs / 1000, 0};
    pollfd polled{fd, POLLIN, 0};
    return sys::retryInterrupted([&] { return sys::ppoll(&polled, 1, &patience, /*mask=*/nullptr); }) > 0;
}

Started startOnceDetached(const StartPlan& plan) {
    StatusPipe status;
    StatusPipe between;
    if (!status || !between) return {-1};
    const pid_t pid = forkInto(plan.memory, [&] { startDetached(plan, status, between); });
    if (pid < 0) return {-1};
    between.closeWriteEnd();
    status.closeWriteEnd();

    DetachedReport report{-1, EIO};
    const bool reported = isReadable(between.readEnd()) &&
                          sys::read(between.readEnd(), &report, sizeof report) == sizeof report;
    if (!reported) (void)sys::kill(pid, SIGKILL);
    int ending = 0;
    (void)sys::waitpid(pid, &ending, 0);  // the report counts, whoever has collected it
    if (!reported) return failed(EIO);
    if (report.pid < 0) return failed(report.error);
    return {report.pid, report.pid == 0};
}

Started startOnce(const StartPlan& plan) {
    StatusPipe status;
    if (!status) return {-1};
    const timespec begin = sys::monotonic();
    const pid_t pid = forkInto(plan.memory, [&] { becomeProgram(plan, status.writeEnd()); });
    if (pid < 0) return {-1};
    status.closeWriteEnd();
    const StartResult result = awaitStart(pid, status.readEnd(), plan.memory, begin);
    if (result.outcome == StartResult::Failed) return failed(result.error);
    return {pid, result.outcome == StartResult::Hung};
}

pid_t start(const StartPlan& plan, bool detached) {
    const Undisturbed undisturbed;
    for (;;) {
        const Started started = detached ? startOnceDetached(plan) : startOnce(plan);
        if (!started.hung) return started.pid;
    }
}

int descriptorLimit() {
    constexpr long kMost = 1 << 20;
    const long limit = sysconf(_SC_OPEN_MAX);
    return static_cast<int>(limit > 0 && limit < kMost ? limit : kMost);
}

/// Everything that the child needs. Nothing, with errno, when the arguments do not make sense.
std::optional<StartPlan> planStart(DWORD flags, Handle* token, const char* commandLine, const char* directory,
                                   const _STARTUPINFO* startup) {
    const auto* owner = handleAs<SecurityToken>(token, HANDLE_KIND_SECURITY_TOKEN);
    if (commandLine == nullptr || (token != nullptr && owner == nullptr)) {
        errno = EINVAL;
        return std::nullopt;
    }
    auto command = CommandLine::split(commandLine, CommandLine::Rules::Quotes);
    if (!command) return std::nullopt;
    auto streams = StandardStreams::from(startup);
    if (!streams) return std::nullopt;

    StartPlan plan{std::move(*command), std::move(*streams)};
    plan.directory = directory;
    plan.newSession = (flags & CREATE_NEW_PROCESS_GROUP) != 0;
    plan.descriptorLimit = descriptorLimit();
    if (owner != nullptr) {
        plan.owner = Owner{owner->GetUid(), owner->GetGid()};
        plan.givesStreams = startup != nullptr && (startup->dwFlags & STARTF_GIVE_TO_TOKEN_OWNER) != 0;
        plan.memory = ChildMemory::Copied;
    }
#if defined(__SANITIZE_THREAD__)
    plan.memory = ChildMemory::Copied;  // the sanitizer makes a fork of each vfork
#endif
    return plan;
}

}  // namespace

}  // namespace traiklofox::kernel

using traiklofox::kernel::ChildRecords;

int Spawn(DWORD flags, Handle* token, const char* commandLine, const char* directory, _STARTUPINFO* startup) {
    try {
        const auto plan = traiklofox::kernel::planStart(flags, token, commandLine, directory, startup);
        if (!plan) return -1;
        const pid_t pid = traiklofox::kernel::start(*plan, (flags & DETACHED_PROCESS) != 0);
        if (pid > 0) ChildRecords::adopt(pid);
        return pid;
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return -1;
    }
}
