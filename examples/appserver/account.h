#pragma once

// account.h: what the demonstration tells its reader. Every claim is checked before it is printed.

#include <stdexcept>
#include <string>

namespace appserver {

/// A claim that does not hold.
class CheckFailed : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// Prints a numbered heading.
void heading(const char* title);
/// Prints a line of the account, in `printf`'s manner.
void say(const char* format, ...) __attribute__((format(printf, 1, 2)));
/// Throws `CheckFailed(claim)` unless `holds`.
void check(bool holds, const std::string& claim);

}  // namespace appserver
