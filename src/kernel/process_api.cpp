// process_api.cpp: the Win32 functions over the Process kind.

#include <traiklofox/clocks.h>
#include <traiklofox/process.h>

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "foundation/sys.h"
#include "kernel/child_records.h"
#include "kernel/command_line.h"
#include "kernel/handle_arguments.h"
#include "kernel/inherited_start.h"
#include "kernel/process_life.h"

using traiklofox::kernel::ChildRecords;
using traiklofox::kernel::CommandLine;
using traiklofox::kernel::handleAs;
using traiklofox::kernel::isNone;
using traiklofox::kernel::ProcessLife;
namespace sys = traiklofox::sys;

namespace {

constexpr size_t kCommandLineSize = 512;  // with its terminating NUL
constexpr size_t kLongestWinExec = 1023;
constexpr DWORD kWinExecSleepMs = 1000;
constexpr UINT kWinExecStarted = 32;
constexpr DWORD kKilled = 0xFFFFFFFF;

Process* processOf(Handle* handle) {
    return handleAs<Process>(handle, HANDLE_KIND_PROCESS);
}

struct ReferenceDropper {
    void operator()(Handle* handle) const { handle->DecRefCount(); }
};
/// A name for a child that nobody else has: when it goes, the child is the library's to collect.
using OwnName = std::unique_ptr<Process, ReferenceDropper>;

BOOL refuse(int error) {
    errno = error;
    return 0;
}

}  // namespace

BOOL CreateProcess(const char* application, char* commandLine, _SECURITY_ATTRIBUTES* processAttributes,
                   _SECURITY_ATTRIBUTES* threadAttributes, BOOL inherit, DWORD flags, void* environment,
                   const char* directory, _STARTUPINFO* startup, _PROCESS_INFORMATION* info) {
    return CreateProcessAsUser(/*token=*/nullptr, application, commandLine, processAttributes,
                               threadAttributes, inherit, flags, environment, directory, startup, info);
}

BOOL CreateProcessAsUser(Handle* token, const char* application, char* commandLine, _SECURITY_ATTRIBUTES*,
                         _SECURITY_ATTRIBUTES*, BOOL, DWORD flags, void*, const char* directory,
                         _STARTUPINFO* startup, _PROCESS_INFORMATION* info) {
    const char* command = commandLine != nullptr ? commandLine : application;
    if (command == nullptr) return refuse(EINVAL);
    if (std::strlen(command) >= kCommandLineSize) return refuse(E2BIG);
    try {
        const int pid = Spawn(flags, token, command, directory, startup);
        if (pid < 1) return 0;
        OwnName process(new Process(pid));
        if (info != nullptr) *info = {process.release(), nullptr, static_cast<DWORD>(pid), 0};
        return 1;
    } catch (const std::bad_alloc&) {
        return refuse(ENOMEM);
    }
}

UINT WinExec(const char* commandLine, UINT) {
    if (commandLine == nullptr || std::strlen(commandLine) > kLongestWinExec) return 0;
    try {
        const auto command = CommandLine::split(commandLine, CommandLine::Rules::BlanksOnly);
        if (!command) return 0;
        const auto started = traiklofox::kernel::startInherited(command->words()[0], command->words());
        if (!started) return 0;
        OwnName process;
        if (*started > 0) {
            ChildRecords::adopt(*started);
            process.reset(new Process(*started));
        }
        Sleep(kWinExecSleepMs);
        return kWinExecStarted;
    } catch (const std::bad_alloc&) {
        return 0;
    }
}

Handle* OpenProcess(DWORD, BOOL, DWORD processId) {
    return new Process(static_cast<int>(processId));
}

BOOL GetExitCodeProcess(Handle* handle, DWORD* code) {
    Process* process = processOf(handle);
    if (process == nullptr) return refuse(ECHILD);
    const auto status = ChildRecords::collect(ProcessLife::childOf(*process));
    if (!status) return 0;
    if (code == nullptr) return 1;
    *code = WIFEXITED(*status) ? static_cast<DWORD>(WEXITSTATUS(*status)) : kKilled;
    process->SetExitStatus(static_cast<int>(*code));
    process->SetState(PROCESS_REAPED);
    return 1;
}

BOOL TerminateProcess(Handle* handle, int status) {
    if (isNone(handle)) std::exit(status);
    Process* process = processOf(handle);
    if (process == nullptr) return refuse(EINVAL);
    // An id that is not a process's own any more, or that stands for several, is not to be signalled.
    if (ProcessLife::look(*process) == ProcessLife::Presence::Gone) return refuse(ESRCH);
    return sys::kill(process->GetPid(), SIGTERM) == 0;
}

void ExitProcess(DWORD code) {
    _exit(static_cast<int>(code));
}

Handle* GetCurrentProcess() {
    return INVALID_HANDLE_VALUE;
}

DWORD GetCurrentProcessId() {
    return static_cast<DWORD>(getpid());
}

DWORD GetProcessId(Handle* handle) {
    const Process* process = processOf(handle);
    return process != nullptr ? static_cast<DWORD>(process->GetPid()) : 0;
}
