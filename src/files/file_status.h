#pragma once

#include <sys/sysmacros.h>
#include <traiklofox/file_status.h>

#include <cstdint>

#include "foundation/sys.h"

namespace traiklofox::files {

/// Two names of one file have one id.
struct FileId {
    std::uint32_t deviceMajor, deviceMinor;
    std::uint64_t inode;
    bool operator==(const FileId&) const = default;
};
inline FileId idOf(const struct statx& status) {
    return {status.stx_dev_major, status.stx_dev_minor, status.stx_ino};
}

/// As `stat` numbers it.
inline ULONGLONG deviceOf(const struct statx& status) {
    return gnu_dev_makedev(status.stx_dev_major, status.stx_dev_minor);
}

inline void take(const struct statx& status, KZFileStatus& result) {
    result.mode = status.stx_mode;
    result.links = status.stx_nlink;
    result.owner = status.stx_uid;
    result.group = status.stx_gid;
    result.blockSize = status.stx_blksize;
    result.accessNanoseconds = status.stx_atime.tv_nsec;
    result.modificationNanoseconds = status.stx_mtime.tv_nsec;
    result.changeNanoseconds = status.stx_ctime.tv_nsec;
    result.device = deviceOf(status);
    result.inode = status.stx_ino;
    result.specialDevice = gnu_dev_makedev(status.stx_rdev_major, status.stx_rdev_minor);
    result.size = status.stx_size;
    result.blocks = status.stx_blocks;
    result.accessTime = status.stx_atime.tv_sec;
    result.modificationTime = status.stx_mtime.tv_sec;
    result.changeTime = status.stx_ctime.tv_sec;
}

}  // namespace traiklofox::files
