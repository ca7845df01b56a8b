// process.cpp: the Process kind: how its end is seen, and what becomes of a child whose last handle goes.
//
// The end is looked up, never caught: no signal, so that any number of threads may wait for one process, and no
// collecting, so that the exit code stays for whoever wants it.

#include <traiklofox/events.h>
#include <traiklofox/process.h>

#include <cstdio>
#include <new>

#include "foundation/on_exit.h"
#include "foundation/sys.h"
#include "kernel/child_records.h"
#include "kernel/process_life.h"
#include "kernel/process_watcher.h"

using traiklofox::foundation::onExit;
using traiklofox::kernel::ChildRecord;
using traiklofox::kernel::ChildRecords;
using traiklofox::kernel::ProcessLife;
using traiklofox::kernel::ProcessWatcher;
namespace sys = traiklofox::sys;

using Presence = ProcessLife::Presence;

namespace {

/// Whether a process has ended, though its parent has not collected it yet.
bool isZombie(pid_t pid) {
    char path[32];
    std::snprintf(path, sizeof path, "/proc/%d/stat", static_cast<int>(pid));
    const sys::UniqueFd file(sys::open(path, O_RDONLY));
    char text[128];  // the state comes third, after a name of at most 15 characters
    const ssize_t length = file ? sys::read(file.get(), text, sizeof text) : -1;
    return length > 0 && traiklofox::kernel::tellsOfEnd({text, static_cast<size_t>(length)});
}

/// Looks without a descriptor.
Presence lookUp(pid_t pid) {
    siginfo_t end{};
    if (sys::waitid(P_PID, static_cast<id_t>(pid), &end, WEXITED | WNOHANG | WNOWAIT) == 0)
        return end.si_pid == 0 ? Presence::Running : Presence::Ended;
    if (sys::kill(pid, 0) != 0 && errno == ESRCH) return Presence::Gone;  // no child of ours
    return isZombie(pid) ? Presence::Ended : Presence::Running;
}

}  // namespace

bool traiklofox::kernel::tellsOfEnd(std::string_view statLine) {
    const size_t nameEnd = statLine.rfind(')');  // the name may hold blanks and parentheses
    if (nameEnd == statLine.npos) return false;
    const std::string_view rest = statLine.substr(nameEnd);
    return rest.starts_with(") Z") || rest.starts_with(") X");
}

Process::Process(int processId)
    : Handle(1),
      pid(processId),
      exitStatus(0),
      state(PROCESS_RUNNING),
      registered(0),
      descriptor(-1),
      child(ChildRecords::name(processId)) {}

Process::~Process() {
    const auto keepErrno = onExit([saved = errno] { errno = saved; });
    const sys::UniqueFd closed(descriptor.exchange(-1));
    if (ChildRecords::unname(*child)) ProcessWatcher::collectAtEnd(pid);
}

DWORD Process::What() const {
    return HANDLE_KIND_PROCESS;
}

// Once seen, the end stays for everybody: the event stays set, so that each waiter finds it, and it is reported
// from the look, so that nothing that resets the event can hide it.
Event* Process::GetSynch(int& signaled) {
    const auto keepErrno = onExit([saved = errno] { errno = saved; });
    Event* event = synchEvent(/*manualReset=*/TRUE);
    const Presence presence = ProcessLife::look(*this);
    signaled = presence != Presence::Running;
    if (presence == Presence::Ended) ProcessLife::noteEnd(*this);
    if (signaled) {
        event->Set();
    } else if (!ProcessLife::isThisProcess(*this) && !ProcessWatcher::watch(*this)) {
        return nullptr;
    }
    return event;
}

void Process::FreeSynch() {
    if (!ProcessWatcher::unwatch(*this)) return;
    (void)Reset();  // there is an event, for it was watched for one
    DecRefCount();
}

void Process::StartThread() {
    (void)ProcessWatcher::startThread();  // tried again when it is needed
}

namespace traiklofox::kernel {

Presence ProcessLife::look(Process& process) {
    if (process.pid <= 0 || process.GetState() == PROCESS_REAPED ||
        process.child->fate.load(std::memory_order_acquire) != ChildRecord::Fate::Uncollected)
        return Presence::Gone;

    int fd = process.descriptor.load(std::memory_order_acquire);
    if (fd < 0) {
        sys::UniqueFd opened(sys::pidfdOpen(process.pid));
        // The others are for the id of a thread.
        if (!opened && (errno == ESRCH || errno == EINVAL || errno == ENOENT)) return Presence::Gone;
        if (!opened) return lookUp(process.pid);
        if (process.descriptor.compare_exchange_strong(fd, opened.get(), std::memory_order_acq_rel))
            fd = opened.release();
    }
    pollfd polled{fd, POLLIN, 0};
    const timespec atOnce{0, 0};
    const int ready = sys::ppoll(&polled, 1, &atOnce, /*mask=*/nullptr);
    if (ready >= 0 && (polled.revents & POLLNVAL) == 0)
        return ready > 0 ? Presence::Ended : Presence::Running;
    if (ready > 0) process.descriptor.store(-1, std::memory_order_release);  // the application has closed it
    return lookUp(process.pid);
}

int ProcessLife::descriptorOf(const Process& process) {
    return process.descriptor.load(std::memory_order_acquire);
}

bool ProcessLife::isThisProcess(const Process& process) {
    return process.pid == getpid();
}

void ProcessLife::noteEnd(Process& process) {
    ProcState_t running = PROCESS_RUNNING;
    process.state.compare_exchange_strong(running, PROCESS_EXITED, std::memory_order_acq_rel);
}

}  // namespace traiklofox::kernel
