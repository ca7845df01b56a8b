#pragma once

#include <sys/types.h>

namespace traiklofox::files {

/// Bytes at the beginning of every view, and of every mapping's file, that are not the caller's.
constexpr off_t kMappingHeader = 4;

}  // namespace traiklofox::files
