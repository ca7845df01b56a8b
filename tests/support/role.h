#pragma once

// Several processes are several processes: a test binary runs itself again in a named role. A role is a
// function that the new process runs instead of the tests; its return value is the process's exit status.
//
//     TEST_ROLE(holdsTheLock) {
//         takeTheLock(args.at(0));
//         tellTest("held");
//         return hearTest() == "go on" ? 0 : 1;
//     }
//     TEST(...) {
//         RoleProcess holder{"holdsTheLock", {path}};
//         ASSERT_EQ(holder.readLine(), "held");
//         holder.kill(SIGKILL);
//         EXPECT_EQ(holder.wait(), ExitStatus::killedBy(SIGKILL));
//     }

#include <signal.h>
#include <sys/types.h>

#include <chrono>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace traiklofox::test {

using RoleArguments = std::vector<std::string>;
using RoleFunction = int (*)(const RoleArguments& args);

/// The bound of every wait for another process, generous because a loaded machine under a sanitizer is slow.
constexpr std::chrono::seconds kPeerTimeout{30};

/// The status of a role that returned 0 although one of its EXPECT or ASSERT statements failed.
constexpr int kRoleExpectationFailed = 99;

/// How a process ended.
struct ExitStatus {
    enum class How { Exited, Killed, TimedOut } how;
    int value;  // exit status, or signal number

    static ExitStatus exited(int status) { return {How::Exited, status}; }
    static ExitStatus killedBy(int signal) { return {How::Killed, signal}; }
    static ExitStatus timedOut() { return {How::TimedOut, 0}; }
    bool operator==(const ExitStatus&) const = default;
};
std::ostream& operator<<(std::ostream& out, const ExitStatus& status);

/// Another real process that runs the role `name`, with its own memory and descriptors and no blocked signal.
/// Both sides talk in lines. Spawn from a thread that outlives the process: the kernel kills it when that
/// thread ends.
class RoleProcess {
  public:
    /// `environment` holds "NAME=value" entries that replace or join the test's own.
    explicit RoleProcess(const std::string& name, const RoleArguments& args = {},
                         const std::vector<std::string>& environment = {});
    RoleProcess(RoleProcess&& other) noexcept;
    RoleProcess(const RoleProcess&) = delete;
    RoleProcess& operator=(const RoleProcess&) = delete;
    /// Kills and reaps the process if it still runs.
    ~RoleProcess();

    pid_t pid() const { return pid_; }
    /// Sends `line` and a line end. False when the process no longer reads.
    bool writeLine(std::string_view line);
    /// The next line that the process told, without its line end; nothing at its end or after `timeout`.
    std::optional<std::string> readLine(std::chrono::milliseconds timeout = kPeerTimeout);
    /// The process's `hearTest` then finds the end.
    void closeInput();
    void kill(int signal);
    /// Reaps the process. May be called again, with the same result; after a time-out it may still be
    /// running.
    ExitStatus wait(std::chrono::milliseconds timeout = kPeerTimeout);

  private:
    pid_t pid_ = -1;
    int channel_ = -1;
    std::string unread_;
    std::optional<ExitStatus> status_;
};

/// In a role: sends one line to the test.
void tellTest(std::string_view line);
/// In a role: the next line that the test wrote; nothing at its end or after `timeout`.
std::optional<std::string> hearTest(std::chrono::milliseconds timeout = kPeerTimeout);

/// Used by TEST_ROLE: makes `function` known under `name`.
bool registerRole(const char* name, RoleFunction function);
/// Used by main: runs the role that the command line asks for and returns its status; nothing without
/// `--role=`.
std::optional<int> runRequestedRole(int argc, char** argv);

}  // namespace traiklofox::test

/// Defines the role `name`: the body gets `args` and returns an exit status.
#define TEST_ROLE(name)                                                        \
    static int roleBody_##name(const ::traiklofox::test::RoleArguments& args); \
    [[maybe_unused]] static const bool roleKnown_##name =                      \
        ::traiklofox::test::registerRole(#name, roleBody_##name);              \
    static int roleBody_##name([[maybe_unused]] const ::traiklofox::test::RoleArguments& args)
