#pragma once

// A line on the terminal that says how far a long job is.

#include <cstddef>
#include <string>

namespace kzreg {

/// Shows "WHAT 12%" on standard error, if that is a terminal and there is much to do, and clears it at the
/// end.
class Progress {
  public:
    Progress(std::string what, size_t steps);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void step();
    /// Shows another text instead.
    void say(const std::string& text);

  private:
    const std::string what_;
    const size_t steps_;
    const bool shown_;
    size_t done_ = 0;
};

}  // namespace kzreg
