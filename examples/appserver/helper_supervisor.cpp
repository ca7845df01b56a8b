// helper_supervisor.cpp: a child process and an event in one wait.

#include "helper_supervisor.h"

#include <traiklofox/events.h>
#include <traiklofox/process.h>
#include <traiklofox/threads.h>
#include <traiklofox/wait.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <system_error>

namespace appserver {
namespace {

OwnedHandle autoResetEvent() {
    return OwnedHandle(CreateEvent(/*attributes=*/nullptr, /*manualReset=*/FALSE, /*initialState=*/FALSE,
                                   /*name=*/nullptr));
}

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

HelperSupervisor::HelperSupervisor()
    : helperId_(0), lastCode_(0), restarted_(autoResetEvent()), stop_(autoResetEvent()) {
    start();
    thread_.reset(CreateThread(/*attributes=*/nullptr, /*stackSize=*/0, run, this, /*flags=*/0,
                               /*threadId=*/nullptr));
    if (!thread_) fail("cannot start the supervising thread");
}

HelperSupervisor::~HelperSupervisor() {
    letGo();
}

DWORD HelperSupervisor::awaitRestart(DWORD milliseconds) {
    if (WaitForSingleObject(restarted_.get(), milliseconds) != WAIT_OBJECT_0)
        throw std::runtime_error("no helper has been replaced");
    return lastCode_.load();
}

DWORD HelperSupervisor::finish() {
    letGo();
    return exitCode();
}

void HelperSupervisor::letGo() {
    SetEvent(stop_.get());
    WaitForSingleObject(thread_.get(), INFINITE);
    input_.reset();
    WaitForSingleObject(helper_.get(), INFINITE);
}

DWORD HelperSupervisor::run(void* supervisor) {
    try {
        static_cast<HelperSupervisor*>(supervisor)->watch();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "HelperSupervisor: %s\n", error.what());
    }
    return 0;
}

void HelperSupervisor::watch() {
    for (;;) {
        Handle* either[] = {stop_.get(), helper_.get()};
        const DWORD ended = WaitForMultipleObjects(2, either, /*waitAll=*/FALSE, INFINITE);
        if (ended == WAIT_OBJECT_0) return;
        if (ended != WAIT_OBJECT_0 + 1) throw std::runtime_error("cannot watch the helper");
        lastCode_.store(exitCode());
        start();
        SetEvent(restarted_.get());
    }
}

/// Starts this program as a helper, with a pipe as its standard input and no standard output.
void HelperSupervisor::start() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) fail("pipe2");
    const OwnedHandle helpersEnd(new File(ends[0]));
    input_.reset(new File(ends[1]));
    const OwnedHandle messages(new File(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0)));

    char command[] = "/proc/self/exe helper";
    STARTUPINFO startup{};
    startup.cb = sizeof startup;
    startup.hStdInput = helpersEnd.get();
    startup.hStdError = messages.get();
    PROCESS_INFORMATION info{};
    if (!CreateProcess(/*application=*/nullptr, command, /*processAttributes=*/nullptr,
                       /*threadAttributes=*/nullptr,
                       /*inherit=*/FALSE, /*flags=*/0, /*environment=*/nullptr, /*directory=*/nullptr,
                       &startup, &info)) {
        fail("cannot start a helper");
    }
    helper_.reset(info.hProcess);
    helperId_.store(info.dwProcessId);
}

DWORD HelperSupervisor::exitCode() const {
    DWORD code = 0;
    if (!GetExitCodeProcess(helper_.get(), &code)) fail("the helper's exit code is lost");
    return code;
}

}  // namespace appserver
