#pragma once

/// What the system tells of a file.

#include <sys/stat.h>
#include <traiklofox/types.h>

/// The numbers of `stat`, each wide enough for every file, however the caller is compiled.
struct KZFileStatus {
    DWORD mode;                     ///< type and permissions
    DWORD links;                    ///< how many names the file has
    DWORD owner;                    ///< the user's id
    DWORD group;                    ///< the group's id
    DWORD blockSize;                ///< preferred size for reading and writing
    DWORD accessNanoseconds;        ///< within the second
    DWORD modificationNanoseconds;  ///< likewise
    DWORD changeNanoseconds;        ///< likewise
    ULONGLONG device;               ///< on which the file is
    ULONGLONG inode;                ///< its number there
    ULONGLONG specialDevice;        ///< of a device file
    ULONGLONG size;                 ///< in bytes
    ULONGLONG blocks;               ///< of 512 bytes
    LONGLONG accessTime;            ///< seconds since the Unix epoch
    LONGLONG modificationTime;      ///< likewise, of the content
    LONGLONG changeTime;            ///< likewise, of the status

    /// The same as a `stat` record, where numbers that do not fit are cut to their low bits. (Inline, since that
    /// record depends on how the caller is compiled.)
    __attribute__((always_inline)) void GetStat(struct stat* status) const {
        *status = {};
        status->st_dev = static_cast<decltype(status->st_dev)>(device);
        status->st_ino = static_cast<decltype(status->st_ino)>(inode);
        status->st_mode = static_cast<decltype(status->st_mode)>(mode);
        status->st_nlink = static_cast<decltype(status->st_nlink)>(links);
        status->st_uid = static_cast<decltype(status->st_uid)>(owner);
        status->st_gid = static_cast<decltype(status->st_gid)>(group);
        status->st_rdev = static_cast<decltype(status->st_rdev)>(specialDevice);
        status->st_size = static_cast<decltype(status->st_size)>(size);
        status->st_blksize = static_cast<decltype(status->st_blksize)>(blockSize);
        status->st_blocks = static_cast<decltype(status->st_blocks)>(blocks);
        setTime(status->st_atim, accessTime, accessNanoseconds);
        setTime(status->st_mtim, modificationTime, modificationNanoseconds);
        setTime(status->st_ctim, changeTime, changeNanoseconds);
    }

  private:
    static void setTime(struct timespec& time, LONGLONG seconds, DWORD nanoseconds) {
        time.tv_sec = static_cast<decltype(time.tv_sec)>(seconds);
        time.tv_nsec = static_cast<decltype(time.tv_nsec)>(nanoseconds);
    }
};
