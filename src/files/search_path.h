#pragma once

// Where a search looks, and for what.

#include <string>
#include <string_view>

namespace traiklofox::files {

/// Finds every entry.
constexpr std::string_view kEverything = "*";

struct SearchPath {
    std::string directory;
    std::string pattern;
};

/// What `FindFirstFile` makes of its argument, as its header says. Asks the file system whether a path without
/// wildcards is a directory.
SearchPath searchPathOf(const std::string& path);

}  // namespace traiklofox::files
