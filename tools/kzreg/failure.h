#pragma once

// How a command ends, and how it says that it cannot go on.

#include <stdexcept>
#include <string>

namespace kzreg {

enum ExitStatus : int {
    kDone = 0,
    kFailed = 1,    // not found, refused, not written; a check found something
    kUnusable = 2,  // the command line makes no sense, or the registry cannot be used
};

/// Ends the command with the message and the status. The message says what to do.
class Failure : public std::runtime_error {
  public:
    Failure(ExitStatus status, const std::string& message) : std::runtime_error(message), status_(status) {}
    ExitStatus status() const { return status_; }

  private:
    ExitStatus status_;
};

}  // namespace kzreg
