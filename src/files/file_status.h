#pragma once

// What the system tells of a file, whatever its size and its date: `stat` on 32 bits refuses a file that was changed
// after 2038.

#include <cstdint>

#include "foundation/sys.h"

namespace traiklofox::files {

/// Of what `path` names, following symbolic links. False with errno.
inline bool statusOf(const char* path, struct statx& status) {
    return sys::statx(AT_FDCWD, path, AT_NO_AUTOMOUNT, &status) == 0;
}
/// Of an open file.
inline bool statusOf(int fd, struct statx& status) {
    return sys::statx(fd, "", AT_EMPTY_PATH, &status) == 0;
}

/// Two names of one file have one id.
struct FileId {
    std::uint32_t deviceMajor, deviceMinor;
    std::uint64_t inode;
    bool operator==(const FileId&) const = default;
};
inline FileId idOf(const struct statx& status) {
    return {status.stx_dev_major, status.stx_dev_minor, status.stx_ino};
}

}  // namespace traiklofox::files
