#pragma once

#include <cstddef>
#include <cstring>

namespace traiklofox::foundation {

/// Copies `text`, cut to what fits, into `destination` and fills the rest with NULs, of which there is at
/// least one.
template <std::size_t Size>
void copyBounded(char (&destination)[Size], const char* text) {
    const std::size_t length = ::strnlen(text, Size - 1);
    std::memcpy(destination, text, length);
    std::memset(destination + length, 0, Size - length);
}

}  // namespace traiklofox::foundation
