#pragma once

// The layout of the public records and classes, as one translation unit sees it.

#include <cstddef>
#include <string>
#include <vector>

namespace traiklofox::test {

/// A record's size, or a field's offset, by name.
struct LayoutEntry {
    std::string name;
    size_t bytes;
    bool operator==(const LayoutEntry&) const = default;
};

std::vector<LayoutEntry> plainLayout();
std::vector<LayoutEntry> layoutWithLargeFiles();       // -D_FILE_OFFSET_BITS=64
std::vector<LayoutEntry> layoutWithLargeFileSource();  // -D_LARGEFILE64_SOURCE

}  // namespace traiklofox::test
