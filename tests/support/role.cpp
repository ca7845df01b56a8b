// Uses send and recv, which no test makes fail, so that a test's faults never hit its talk with its peers.

#include "support/role.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <spawn.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <ostream>
#include <stdexcept>
#include <system_error>
#include <thread>

namespace traiklofox::test {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::string_view kRoleFlag = "--role=";
int roleChannel = -1;    // in a role: its end of the line to the test
std::string roleUnread;  // in a role: what came after the last line heard

std::map<std::string, RoleFunction>& knownRoles() {
    static auto* roles = new std::map<std::string, RoleFunction>;  // filled before main, never destroyed
    return *roles;
}

bool sendLine(int channel, std::string_view line) {
    std::string text{line};
    text += '\n';
    for (std::string_view rest = text; !rest.empty();) {
        const ssize_t sent = ::send(channel, rest.data(), rest.size(), MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) continue;
        if (sent < 0) return false;
        rest.remove_prefix(static_cast<size_t>(sent));
    }
    return true;
}

/// True when there is something to receive, the end included.
bool waitReadable(int channel, Clock::time_point deadline) {
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd item{channel, POLLIN, 0};
        const int ready = ::poll(&item, 1, left > 0 ? static_cast<int>(left) : 0);
        if (ready > 0) return true;
        if (ready == 0 || errno != EINTR) return false;
    }
}

std::optional<std::string> receiveLine(int channel, std::string& unread, std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    size_t lineEnd;
    while ((lineEnd = unread.find('\n')) == std::string::npos) {
        if (!waitReadable(channel, deadline)) return std::nullopt;
        char buffer[4096];
        const ssize_t received = ::recv(channel, buffer, sizeof buffer, 0);
        if (received < 0 && errno == EINTR) continue;
        if (received <= 0) return std::nullopt;
        unread.append(buffer, static_cast<size_t>(received));
    }
    std::string line = unread.substr(0, lineEnd);
    unread.erase(0, lineEnd + 1);
    return line;
}

std::vector<std::string> environmentWith(const std::vector<std::string>& changes) {
    std::vector<std::string> result = changes;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string_view inherited = *entry;
        const std::string_view name = inherited.substr(0, inherited.find('=') + 1);
        bool replaced = false;
        for (const std::string& change : changes) replaced |= change.starts_with(name);
        if (!replaced) result.emplace_back(inherited);
    }
    return result;
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (std::string& text : texts) pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

void check(int error, const char* what) {
    if (error != 0) throw std::system_error(error, std::generic_category(), what);
}

pid_t spawnSelf(int channel, std::vector<std::string> arguments, std::vector<std::string> environment) {
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    check(::posix_spawn_file_actions_init(&actions), "posix_spawn_file_actions_init");
    check(::posix_spawnattr_init(&attributes), "posix_spawnattr_init");
    check(::posix_spawn_file_actions_adddup2(&actions, channel, STDIN_FILENO), "adddup2");

    sigset_t none;
    sigemptyset(&none);
    check(::posix_spawnattr_setsigmask(&attributes, &none), "setsigmask");
    check(::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK), "setflags");

    pid_t pid = -1;
    const int error = ::posix_spawn(&pid, "/proc/self/exe", &actions, &attributes,
                                    pointersTo(arguments).data(), pointersTo(environment).data());
    ::posix_spawn_file_actions_destroy(&actions);
    ::posix_spawnattr_destroy(&attributes);
    check(error, "posix_spawn");
    return pid;
}

ExitStatus decode(int status) {
    return WIFSIGNALED(status) ? ExitStatus::killedBy(WTERMSIG(status))
                               : ExitStatus::exited(WEXITSTATUS(status));
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const ExitStatus& status) {
    switch (status.how) {
        case ExitStatus::How::Exited: return out << "exit status " << status.value;
        case ExitStatus::How::Killed: return out << "killed by signal " << status.value;
        case ExitStatus::How::TimedOut: return out << "still running at the time-out";
    }
    return out;
}

RoleProcess::RoleProcess(const std::string& name, const RoleArguments& args,
                         const std::vector<std::string>& environment) {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) check(errno, "socketpair");
    std::vector<std::string> arguments{"test", std::string{kRoleFlag} + name};
    arguments.insert(arguments.end(), args.begin(), args.end());
    pid_ = spawnSelf(ends[1], std::move(arguments), environmentWith(environment));
    ::close(ends[1]);
    channel_ = ends[0];
}

RoleProcess::RoleProcess(RoleProcess&& other) noexcept
    : pid_(std::exchange(other.pid_, -1)),
      channel_(std::exchange(other.channel_, -1)),
      unread_(std::move(other.unread_)),
      status_(std::move(other.status_)) {}

RoleProcess::~RoleProcess() {
    if (pid_ > 0 && !status_) {
        ::kill(pid_, SIGKILL);
        (void)wait();  // only to reap it
    }
    if (channel_ >= 0) ::close(channel_);
}

bool RoleProcess::writeLine(std::string_view line) {
    return sendLine(channel_, line);
}

std::optional<std::string> RoleProcess::readLine(std::chrono::milliseconds timeout) {
    return receiveLine(channel_, unread_, timeout);
}

void RoleProcess::closeInput() {
    ::shutdown(channel_, SHUT_WR);
}

void RoleProcess::kill(int signal) {
    if (!status_) ::kill(pid_, signal);
}

ExitStatus RoleProcess::wait(std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    while (!status_) {
        int status = 0;
        const pid_t reaped = ::waitpid(pid_, &status, WNOHANG);
        if (reaped == pid_) status_ = decode(status);
        if (reaped == -1 && errno != EINTR)
            throw std::system_error(errno, std::generic_category(), "waitpid");
        if (status_) break;
        if (Clock::now() >= deadline) return ExitStatus::timedOut();
        std::this_thread::sleep_for(std::chrono::milliseconds{1});
    }
    return *status_;
}

void tellTest(std::string_view line) {
    if (!sendLine(roleChannel, line)) throw std::runtime_error("tellTest: the test no longer listens");
}

std::optional<std::string> hearTest(std::chrono::milliseconds timeout) {
    return receiveLine(roleChannel, roleUnread, timeout);
}

bool registerRole(const char* name, RoleFunction function) {
    return knownRoles().emplace(name, function).second;
}

std::optional<int> runRequestedRole(int argc, char** argv) {
    if (argc < 2 || !std::string_view{argv[1]}.starts_with(kRoleFlag)) return std::nullopt;
    // A test that is stopped, by its time-out for instance, takes its peers with it.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    const std::string name{std::string_view{argv[1]}.substr(kRoleFlag.size())};
    const auto role = knownRoles().find(name);
    if (role == knownRoles().end()) {
        std::fprintf(stderr, "no role %s\n", name.c_str());
        return EXIT_FAILURE;
    }
    roleChannel = ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
    const int null = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ::dup2(null, STDIN_FILENO);
    ::close(null);

    const int status = role->second(RoleArguments(argv + 2, argv + argc));
    const bool expectationFailed = ::testing::UnitTest::GetInstance()->Failed();
    return status == 0 && expectationFailed ? kRoleExpectationFailed : status;
}

}  // namespace traiklofox::test
