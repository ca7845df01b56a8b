#pragma once

// The names of a directory's entries: kept together, and sorted.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

namespace traiklofox::files {

/// Holds names in blocks, without an allocation for each. Their addresses stay.
class NameStore {
  public:
    /// The copy is ended and filled up with NULs to whole words, which begin at its address.
    const char* add(std::string_view name);

  private:
    std::vector<std::unique_ptr<std::uint64_t[]>> blocks_;
    size_t used_ = 0;      // words of the last block
    size_t capacity_ = 0;  // of the last block
};

/// An entry of a directory before its status is known.
struct NamedEntry {
    std::uint64_t key;   // the sort's own
    const char* name;    // from a NameStore
    unsigned char type;  // as `dirent::d_type`
};

/// In the order of the names' bytes.
void sortByName(std::vector<NamedEntry>& entries);

}  // namespace traiklofox::files
