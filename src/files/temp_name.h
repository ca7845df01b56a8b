#pragma once

#include <sys/types.h>

#include <optional>
#include <string_view>

namespace traiklofox::files {

/// The process that made a temporary name (`KZTempNam`'s, without directory); none for any other name.
std::optional<pid_t> processOfTemporaryName(std::string_view name);

}  // namespace traiklofox::files
