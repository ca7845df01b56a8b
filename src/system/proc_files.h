#pragma once

// The files of /proc that tell of a process.

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <optional>
#include <span>
#include <string_view>

namespace traiklofox::system {

/// Set once, when /proc turns out to be an old kernel's, and never cleared.
inline constinit std::atomic<bool> bDumbProcfs{false};

/// The SIGCHLD that a process, unlike a thread, sends when it ends.
constexpr int kChildExitSignal = 17;

/// As much of `path`, from the directory `at` on, as fits the buffer; nothing when it cannot be opened or read, or is
/// empty.
std::optional<std::string_view> readStart(int at, const char* path, std::span<char> buffer);

/// Fields of a line of /proc/<id>/stat.
struct StatNames {
    std::string_view name;  // in its parentheses, whatever it holds
    pid_t parent;
};
std::optional<StatNames> namesOf(std::string_view statLine);

/// The name cut at its first blank and first ")", as short names are told; empty when there is none.
std::string_view commandIn(std::string_view statLine);

/// The line's 38th field; nothing when the line ends before it.
std::optional<int> exitSignalOf(std::string_view statLine);

/// The path of one of a process's files, without an allocation.
class ProcPath {
  public:
    /// Below /proc.
    ProcPath(std::string_view id, const char* file);
    /// From the root on.
    ProcPath(pid_t id, const char* file);
    const char* get() const { return text_; }

  private:
    char text_[300];  // more than a name in a directory can have
};

}  // namespace traiklofox::system
