#pragma once

#include <sys/types.h>

#include <optional>

namespace traiklofox::kernel {

/// Starts a program that inherits what a forked one does, the caller's signal mask too, but without the signals
/// that the library blocks. Returns its process id; -1 when there was a process but its program could not be
/// executed (it is collected); nothing, with errno, when there was none.
std::optional<pid_t> startInherited(const char* program, char* const* words);

}  // namespace traiklofox::kernel
