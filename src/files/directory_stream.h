#pragma once

#include <cstring>
#include <memory>

#include "foundation/sys.h"

namespace traiklofox::files {

/// An open directory's entries, "." and ".." left out.
class DirectoryStream {
  public:
    /// Tells by `operator bool` whether it could be opened; if not, with errno.
    explicit DirectoryStream(const char* path) : directory_(sys::opendir(path)) {}
    explicit operator bool() const { return directory_ != nullptr; }

    /// The next entry, valid until the one after it; null at the end, and when reading fails.
    const dirent* next() {
        const dirent* entry = sys::readdir(directory_.get());
        while (entry != nullptr && isDots(entry->d_name)) entry = sys::readdir(directory_.get());
        return entry;
    }

  private:
    struct Closer {
        void operator()(DIR* directory) const { (void)sys::closedir(directory); }  // nothing was written
    };
    static bool isDots(const char* name) {
        return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
    }

    std::unique_ptr<DIR, Closer> directory_;
};

}  // namespace traiklofox::files
