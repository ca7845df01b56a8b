#pragma once

// What a new process gets as its standard input, output and error.

#include <traiklofox/process.h>

#include <array>
#include <optional>

#include "foundation/sys.h"

namespace traiklofox::kernel {

class StandardStreams {
  public:
    /// Looks up the record's descriptors, and opens "/dev/null" for those that it does not give; a null record
    /// gives none. Nothing, with errno, when a handle is no open file (EBADF) or "/dev/null" cannot be opened.
    static std::optional<StandardStreams> from(const _STARTUPINFO* startup);

    /// Only in the child, and async-signal-safe: makes them descriptors 0, 1 and 2. False: errno says why.
    bool place() const;
    /// The same: gives those that came from the record to an owner.
    void giveTo(uid_t user, gid_t group) const;

  private:
    static constexpr int kCount = 3;

    std::array<int, kCount> sources_{};
    std::array<bool, kCount> fromRecord_{};
    sys::UniqueFd null_;
};

}  // namespace traiklofox::kernel
