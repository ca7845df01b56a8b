// child_process.cpp: starts processes with `posix_spawn` and two pipes each.

#include "child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

namespace appserver {
namespace {

constexpr char kThisProgram[] = "/proc/self/exe";
// As if each had been started from the instance's directory, by which its processes are known.
constexpr char kNamedAs[] = "/srv/https-appserver/bin/appserver";

void throwIfError(int error, const char* what) {
    if (error != 0) throw std::system_error(error, std::generic_category(), what);
}

struct Pipe {
    int readEnd = -1;
    int writeEnd = -1;

    Pipe() {
        int ends[2];
        throwIfError(pipe2(ends, O_CLOEXEC) == 0 ? 0 : errno, "pipe2");
        readEnd = ends[0];
        writeEnd = ends[1];
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    ~Pipe() {
        if (readEnd != -1) close(readEnd);
        if (writeEnd != -1) close(writeEnd);
    }
};

/// Standard input and output become the pipes. A broken pipe, which this program ignores, ends the child
/// again.
pid_t spawn(const std::vector<std::string>& arguments, int input, int output) {
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    throwIfError(posix_spawn_file_actions_init(&actions), "posix_spawn_file_actions_init");
    throwIfError(posix_spawnattr_init(&attributes), "posix_spawnattr_init");
    posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);

    std::vector<char*> argv{const_cast<char*>(kNamedAs)};  // exec takes them writable and writes nothing
    for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    pid_t pid = -1;
    const int error = posix_spawn(&pid, kThisProgram, &actions, &attributes, argv.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    throwIfError(error, "posix_spawn");
    return pid;
}

/// Whether there is something to read, or the end, before the deadline.
bool readableBy(int descriptor, std::chrono::steady_clock::time_point deadline) {
    using std::chrono::milliseconds;
    for (;;) {
        const auto left = std::chrono::ceil<milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd polled{descriptor, POLLIN, 0};
        const int ready = poll(&polled, 1, static_cast<int>(std::max(left, milliseconds::zero()).count()));
        if (ready >= 0) return ready > 0;
        if (errno != EINTR) throwIfError(errno, "poll");
    }
}

void closeOnce(int& descriptor) {
    if (descriptor != -1) close(std::exchange(descriptor, -1));
}

}  // namespace

ChildProcess::ChildProcess(std::string title, const std::vector<std::string>& arguments)
    : title_(std::move(title)) {
    Pipe input;
    Pipe output;
    pid_ = spawn(arguments, input.readEnd, output.writeEnd);
    toChild_ = std::exchange(input.writeEnd, -1);
    fromChild_ = std::exchange(output.readEnd, -1);
}

ChildProcess::ChildProcess(ChildProcess&& other) noexcept
    : title_(std::move(other.title_)),
      pid_(std::exchange(other.pid_, -1)),
      toChild_(std::exchange(other.toChild_, -1)),
      fromChild_(std::exchange(other.fromChild_, -1)),
      unread_(std::move(other.unread_)) {}

ChildProcess::~ChildProcess() {
    if (pid_ != -1) kill();
    closeOnce(toChild_);
    closeOnce(fromChild_);
}

void ChildProcess::send(const std::string& command) {
    const std::string line = command + "\n";  // short enough for the pipe to take it whole
    if (write(toChild_, line.data(), line.size()) != static_cast<ssize_t>(line.size()))
        fail("does not listen");
}

std::vector<std::string> ChildProcess::awaitAnswer(std::chrono::milliseconds bound) {
    const Deadline deadline = std::chrono::steady_clock::now() + bound;
    std::vector<std::string> lines;
    for (;;) {
        const std::string line = readLine(deadline);
        if (line == "ok") return lines;
        if (line.starts_with("failed: ")) fail("says \"" + line + "\"");
        lines.push_back(line);
    }
}

std::vector<std::string> ChildProcess::ask(const std::string& command, std::chrono::milliseconds bound) {
    send(command);
    return awaitAnswer(bound);
}

bool ChildProcess::speaksWithin(std::chrono::milliseconds bound) {
    return !unread_.empty() || readableBy(fromChild_, std::chrono::steady_clock::now() + bound);
}

std::string ChildProcess::readLine(Deadline deadline) {
    std::size_t end = unread_.find('\n');
    while (end == std::string::npos) {
        if (!readMore(deadline)) fail("ended without an answer");
        end = unread_.find('\n');
    }
    std::string line = unread_.substr(0, end);
    unread_.erase(0, end + 1);
    return line;
}

/// Returns false at the end of what the process has to say, which is when it ends.
bool ChildProcess::readMore(Deadline deadline) {
    if (!readableBy(fromChild_, deadline)) fail("does not answer");
    char buffer[4096];
    const ssize_t count = read(fromChild_, buffer, sizeof buffer);
    if (count > 0) unread_.append(buffer, static_cast<std::size_t>(count));
    return count > 0;
}

int ChildProcess::finish() {
    closeOnce(toChild_);
    const Deadline deadline = std::chrono::steady_clock::now() + kPatience;
    unread_.clear();
    while (readMore(deadline)) unread_.clear();
    return reap();
}

void ChildProcess::kill() {
    ::kill(pid_, SIGKILL);
    reap();
}

int ChildProcess::reap() {
    int status = 0;
    pid_t reaped = -1;
    do {
        reaped = waitpid(pid_, &status, /*options=*/0);
    } while (reaped == -1 && errno == EINTR);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void ChildProcess::fail(const std::string& what) const {
    throw ChildFailure(title_ + " (pid " + std::to_string(pid_) + ") " + what);
}

}  // namespace appserver
