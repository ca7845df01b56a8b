// search_path.cpp: takes the path of a search apart.

#include "files/search_path.h"

#include "foundation/sys.h"

namespace traiklofox::files {

namespace {

constexpr size_t kNeverSplitAt = 1;

bool isDirectory(const std::string& path) {
    struct statx status;
    return sys::stat(path.c_str(), &status) == 0 && S_ISDIR(status.stx_mode);
}

}  // namespace

SearchPath searchPathOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    const bool isWhole = slash == path.npos || slash == kNeverSplitAt || slash + 1 == path.size() ||
                         (path.find_first_of("*?") == path.npos && isDirectory(path));
    if (isWhole) return {path, std::string(kEverything)};
    return {path.substr(0, slash + 1), path.substr(slash + 1)};
}

}  // namespace traiklofox::files
