#pragma once

// Telling the temporary files of processes that have ended from other files.

#include <sys/types.h>

#include <optional>
#include <string_view>

namespace traiklofox::files {

/// The process that `KZTempNam` gave this file name (without a directory) to; nothing for a name that it
/// never gives.
std::optional<pid_t> processOfTemporaryName(std::string_view name);

}  // namespace traiklofox::files
