#pragma once

// child_process.h: another process of this same program, and the talk with it (conversation.h). Every wait
// has a bound: a process that does not answer, or answers with a failure, is a `ChildFailure`, and whoever is
// forgotten is killed.

#include <sys/types.h>

#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

namespace appserver {

class ChildFailure : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

constexpr std::chrono::seconds kPatience{30};

class ChildProcess {
  public:
    /// Starts this program with `arguments`. `title` is what messages call the process.
    ChildProcess(std::string title, const std::vector<std::string>& arguments);
    ChildProcess(ChildProcess&& other) noexcept;
    ChildProcess& operator=(ChildProcess&&) = delete;
    /// Kills the process if it still runs.
    ~ChildProcess();

    const std::string& title() const { return title_; }
    pid_t pid() const { return pid_; }

    void send(const std::string& command);
    /// The lines of the next answer, without its final "ok".
    std::vector<std::string> awaitAnswer(std::chrono::milliseconds bound = kPatience);
    /// `send`, then `awaitAnswer`.
    std::vector<std::string> ask(const std::string& command, std::chrono::milliseconds bound = kPatience);
    /// Whether the process says anything within that time.
    bool speaksWithin(std::chrono::milliseconds bound);

    /// Ends the conversation and waits for the end of the process. Returns its exit status, or 128 and the
    /// number of the signal that killed it.
    int finish();
    void kill();

  private:
    using Deadline = std::chrono::steady_clock::time_point;
    bool readMore(Deadline deadline);
    std::string readLine(Deadline deadline);
    int reap();
    [[noreturn]] void fail(const std::string& what) const;

    std::string title_;
    pid_t pid_ = -1;
    int toChild_ = -1;
    int fromChild_ = -1;
    std::string unread_;
};

}  // namespace appserver
