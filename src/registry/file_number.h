#pragma once

// Numbers in the registry file, which processes of both word sizes read alike.

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <limits>

namespace traiklofox::registry {

/// What the beginning of `text` says in any base that C knows, as `strtoul` with 32 bits reads it: a larger number is
/// the largest, with ERANGE, and one with a minus sign wraps around. `end` receives where it ends.
inline std::uint32_t readNumber(const char* text, char** end) {
    constexpr std::uint32_t kLargest = std::numeric_limits<std::uint32_t>::max();
    const unsigned long long number = std::strtoull(text, end, 0);
    if (number <= kLargest || 0 - number <= kLargest) return static_cast<std::uint32_t>(number);
    errno = ERANGE;
    return kLargest;
}

}  // namespace traiklofox::registry
