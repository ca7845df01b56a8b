#pragma once

// The way of a child from the fork to its program. The child may share its parent's memory, and other threads'
// locks may stand as they stood at the fork: everything is prepared in the parent, and what runs here is
// async-signal-safe and changes nothing outside its own stack.

#include <ctime>
#include <optional>

#include "foundation/sys.h"
#include "kernel/command_line.h"
#include "kernel/standard_streams.h"

namespace traiklofox::kernel {

/// A start that takes longer hangs.
constexpr int kStartPatienceMs = 30'000;

enum class ChildMemory {
    Shared,  // with the parent, whose thread stands still until the child has its program or has ended
    Copied,
};

struct Owner {
    uid_t user;
    gid_t group;
};

/// What a child is to become.
struct StartPlan {
    CommandLine command;
    StandardStreams streams;
    const char* directory = nullptr;  // null: where the parent is
    bool newSession = false;
    std::optional<Owner> owner = {};  // whom to become
    bool givesStreams = false;        // the owner gets the standard streams
    int descriptorLimit = 0;
    ChildMemory memory = ChildMemory::Shared;
};

/// What has become of a child.
struct StartResult {
    enum { Running, Failed, Hung } outcome;
    int error = 0;  // why it failed
};

/// Replaces the calling child by its program. When that fails, writes the error number to `statusPipe` and ends
/// the child; success closes the pipe.
[[noreturn]] void becomeProgram(const StartPlan& plan, int statusPipe);

/// In whoever forked: what has become of `child`, which was forked at `begin` and has the other end of
/// `statusPipe`. A child that failed or hung is killed and collected. Async-signal-safe.
StartResult awaitStart(pid_t child, int statusPipe, ChildMemory memory, const timespec& begin);

}  // namespace traiklofox::kernel
