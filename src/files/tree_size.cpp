// tree_size.cpp: the size of what is below a directory, counted in one running total.

#include <traiklofox/directories.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include "files/directory_stream.h"
#include "files/file_status.h"
#include "foundation/sys.h"

using traiklofox::files::FileId;
using traiklofox::files::idOf;
namespace sys = traiklofox::sys;

namespace {

/// A directory on the way down.
struct Level {
    traiklofox::files::DirectoryStream entries;
    size_t pathLength;
    FileId id;
};

/// A walk by its own stack: how deep a tree is must not decide how much of the thread's is used.
class Walk {
  public:
    explicit Walk(const std::string& directory) : path_(directory) {}

    DWORD total() {
        struct statx status;
        if (sys::stat(path_.c_str(), &status) != 0) return 0;
        if (!S_ISDIR(status.stx_mode)) {
            errno = ENOTDIR;
            return 0;
        }
        enter(status);
        while (!way_.empty()) {
            if (const dirent* entry = way_.back().entries.next())
                visit(entry->d_name);
            else
                way_.pop_back();
        }
        return total_;
    }

  private:
    /// A directory's total takes the place of the one so far, and begins with its own size.
    void enter(const struct statx& directory) {
        total_ = static_cast<DWORD>(directory.stx_size);
        Level level{traiklofox::files::DirectoryStream(path_.c_str()), path_.size(), idOf(directory)};
        if (level.entries) way_.push_back(std::move(level));
    }

    void visit(const char* name) {
        path_.resize(way_.back().pathLength);
        path_.append(1, '/').append(name);
        struct statx status;
        if (sys::stat(path_.c_str(), &status) != 0) return;
        if (!S_ISDIR(status.stx_mode))
            total_ += static_cast<DWORD>(status.stx_size);
        else if (!isOnTheWay(status))
            enter(status);
    }

    bool isOnTheWay(const struct statx& directory) const {
        return std::any_of(way_.begin(), way_.end(),
                           [&](const Level& level) { return level.id == idOf(directory); });
    }

    std::string path_;
    std::vector<Level> way_;
    DWORD total_ = 0;
};

}  // namespace

DWORD GetDirectoryTreeSize(const CKZString& directory) {
    return Walk(directory).total();
}
