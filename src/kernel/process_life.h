#pragma once

// What the rest of the kernel may do with a Process that its callers may not.

#include <traiklofox/process.h>

#include <string_view>

namespace traiklofox::kernel {

/// Whether this, the start of a line of /proc/<id>/stat, is that of a process that has ended.
bool tellsOfEnd(std::string_view statLine);

class ProcessLife {
  public:
    enum class Presence {
        Running,
        Ended,  // and not collected yet
        Gone,   // there is no such process, or no longer
    };

    /// Looks at the process, without waiting.
    static Presence look(Process& process);
    /// What becomes readable when the process ends; -1 when it can only be looked at. For a process that `look`
    /// has found running.
    static int descriptorOf(const Process& process);
    /// How often to look then.
    static constexpr int kLookEveryMs = 10;

    static bool isThisProcess(const Process& process);
    /// A wait has seen it end.
    static void noteEnd(Process& process);

    /// Whether the process is in the watch set; for the holder of its lock.
    static int& registered(Process& process) { return process.registered; }
    static ChildRecord& childOf(const Process& process) { return *process.child; }
};

}  // namespace traiklofox::kernel
