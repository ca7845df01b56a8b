#pragma once

#include <cerrno>
#include <cstdarg>
#include <cstdio>

namespace traiklofox::files {

/// Prints to standard error and leaves errno alone.
[[gnu::format(printf, 1, 2)]] inline void report(const char* format, ...) {
    const int error = errno;
    va_list arguments;
    va_start(arguments, format);
    (void)std::vfprintf(stderr, format, arguments);  // nowhere is left to report a failure to
    va_end(arguments);
    errno = error;
}

}  // namespace traiklofox::files
