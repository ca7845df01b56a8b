#pragma once

// Catches what the process writes to standard error or output by whatever means: the descriptor itself goes
// to a file in memory meanwhile.

#include <string>

namespace traiklofox::test {

/// Catches one descriptor while it lives. Streams over it are flushed at both ends, so that nothing strays.
class CapturedDescriptor {
  public:
    explicit CapturedDescriptor(int fd);
    CapturedDescriptor(const CapturedDescriptor&) = delete;
    CapturedDescriptor& operator=(const CapturedDescriptor&) = delete;
    ~CapturedDescriptor();

    /// All that was written until now.
    std::string text() const;

  private:
    int fd_;
    int original_;
    int file_;
};

struct CapturedStderr : CapturedDescriptor {
    CapturedStderr() : CapturedDescriptor(/*fd=*/2) {}
};
struct CapturedStdout : CapturedDescriptor {
    CapturedStdout() : CapturedDescriptor(/*fd=*/1) {}
};

}  // namespace traiklofox::test
