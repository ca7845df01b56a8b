#pragma once

// control_group.h: the limits that a container's control group sets, of either version of the interface.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace traiklofox::system {

struct GroupMemory {
    std::uint64_t limit;
    std::uint64_t used;  // without what the kernel gives up when asked: the file cache
};

class ControlGroups {
  public:
    /// `membership` is the text of /proc/self/cgroup, `root` where the groups are mounted.
    explicit ControlGroups(std::string membership, std::string root = "/sys/fs/cgroup");

    /// How many processors' time the group may use; nothing without a limit.
    std::optional<double> processors() const;
    /// The tightest limit on the way up; nothing without one.
    std::optional<GroupMemory> memory() const;
    /// The same of swap space.
    std::optional<GroupMemory> swap() const;

  private:
    /// The group's directory for a controller of version 1, or, with an empty name, of version 2.
    std::optional<std::string> directoryOf(std::string_view controller) const;
    template <class Read>
    void eachUpward(std::string_view controller, Read read) const;

    std::string membership_;
    std::string root_;
};

/// The first of a whole text file's lines that begins with `label`, behind it: a number.
std::optional<std::uint64_t> numberBehind(std::string_view text, std::string_view label);

/// Of a file of the kernel's; empty when there is none. Leaves errno alone.
std::string textOfFile(const std::string& path);

}  // namespace traiklofox::system
