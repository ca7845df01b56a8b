#pragma once

// What the tests of processes share: children that end when they are told to, their output, and proofs that
// nothing is left of them.

#include <fcntl.h>
#include <sys/wait.h>
#include <traiklofox/process.h>

#include <cerrno>

#include "kernel/worker.h"

namespace traiklofox::test {

/// The two ends of a pipe, as the handles that a start-up record takes.
struct PipeEnds {
    PipeEnds() {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0) std::abort();
        in.reset(new File(ends[0]));
        out.reset(new File(ends[1]));
    }
    OwnedHandle in, out;
};

inline int fdOf(const OwnedHandle& file) {
    return static_cast<File*>(file.get())->GetFd();
}

/// All that can be read until the last writer has closed.
inline std::string readAll(const OwnedHandle& file) {
    std::string text;
    char buffer[4096];
    for (ssize_t got; (got = ::read(fdOf(file), buffer, sizeof buffer)) > 0;)
        text.append(buffer, static_cast<size_t>(got));
    return text;
}

enum class Via { CreateProcess, DetachedProcess, Spawn, Fork };

inline OwnedHandle openProcess(pid_t pid) {
    return OwnedHandle{OpenProcess(0, FALSE, static_cast<DWORD>(pid))};
}
inline OwnedHandle createProcess(std::string line, DWORD flags = 0, _STARTUPINFO* startup = nullptr) {
    _PROCESS_INFORMATION info{};
    (void)CreateProcess(nullptr, line.data(), nullptr, nullptr, FALSE, flags, nullptr, nullptr, startup,
                        &info);
    return OwnedHandle{info.hProcess};
}
/// A child that a shell command line starts; it ends by itself.
inline OwnedHandle startShell(const std::string& script) {
    return createProcess("/bin/sh -c '" + script + "'");
}

/// A process that runs until `end`, when its standard input ends.
class Child {
  public:
    explicit Child(Via via = Via::CreateProcess) {
        _STARTUPINFO startup{sizeof startup, 0, input_.in.get(), nullptr, nullptr};
        if (via == Via::Fork && (pid_ = ::fork()) == 0) {
            ::dup2(fdOf(input_.in), 0);
            ::execl("/bin/cat", "cat", nullptr);
            ::_exit(1);
        } else if (via == Via::Spawn) {
            pid_ = ::Spawn(0, nullptr, "/bin/cat", nullptr, &startup);
        } else if (via != Via::Fork) {
            handle = createProcess("/bin/cat", via == Via::DetachedProcess ? DETACHED_PROCESS : 0, &startup);
            pid_ = static_cast<pid_t>(GetProcessId(handle.get()));
        }
        if (!handle) handle = openProcess(pid_);
        input_.in.reset();
    }
    void end() { input_.out.reset(); }
    /// Returns once the process has ended, without a wait of the library and without collecting it.
    void endUnseen() {
        end();
        siginfo_t info{};
        if (::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOWAIT) != 0)
            (void)soon([&] { return ::kill(pid_, 0) != 0; });
    }
    pid_t pid() const { return pid_; }
    Process& process() const { return *static_cast<Process*>(handle.get()); }

    OwnedHandle handle;

  private:
    PipeEnds input_;
    pid_t pid_ = -1;
};

/// Whether this process has no child, running or ended.
inline bool isChildless() {
    siginfo_t info{};
    return ::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == -1 && errno == ECHILD;
}
inline bool isChild(pid_t pid) {
    siginfo_t info{};
    return ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0;
}

}  // namespace traiklofox::test
