// copy_file.cpp: copying through two locked files.

#include <traiklofox/copy_file.h>
#include <traiklofox/file_lock.h>
#include <traiklofox/settings.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <new>

#include "files/file_status.h"
#include "foundation/sys.h"

using traiklofox::files::idOf;
namespace sys = traiklofox::sys;

namespace {

constexpr int kSourceMode = FileLock::in | FileLock::nocreate;
constexpr int kReplaceMode = FileLock::out | FileLock::trunc;
constexpr std::uint32_t kSmallestBlock = 512;
constexpr std::uint32_t kLargestBlock = 1 << 20;

/// True when `path` is the file that `opened` describes, by whatever name.
bool isSameFile(const struct statx& opened, const char* path) {
    struct statx other;
    return sys::stat(path, &other) == 0 && idOf(other) == idOf(opened);
}

bool copyContent(FileLock& source, FileLock& destination, std::uint32_t preferred) {
    const auto size = static_cast<size_t>(std::clamp(preferred, kSmallestBlock, kLargestBlock));
    const auto block = std::make_unique_for_overwrite<char[]>(size);
    for (;;) {
        const int got = source.ReadBlk(block.get(), static_cast<int>(size));
        if (got < 1) return !source.IsBad();
        if (destination.WriteBlk(block.get(), got) != got) return false;
    }
}

/// The owner first: a change of owner takes mode bits away.
void giveOwnerAndMode(FileLock& destination, const struct statx& source) {
    (void)sys::fchown(destination.GetFileDescriptor(), source.stx_uid, source.stx_gid);  // as far as we may
    (void)sys::fchmod(destination.GetFileDescriptor(), source.stx_mode & 07777);
}

bool copy(const char* from, const char* to, bool failIfExists) {
    FileLock source;
    if (!source.OpenAndLockFile(from, kSourceMode, /*already=*/nullptr, /*count=*/0)) return false;
    struct statx status;
    if (sys::fstat(source.GetFileDescriptor(), &status) != 0) return false;
    // Before the destination is opened: that empties it, and closing it would unlock the source.
    if (isSameFile(status, to)) {
        errno = EEXIST;
        return false;
    }
    FileLock destination;
    const int mode = failIfExists ? kReplaceMode | FileLock::noreplace : kReplaceMode;
    if (!destination.OpenAndLockFile(to, mode, /*already=*/nullptr, /*count=*/0)) return false;

    const bool copied = copyContent(source, destination, status.stx_blksize);
    const int error = errno;
    (void)destination.Flush();  // writing takes mode bits away, too; closing tells if it failed
    if (!bRunningInServer) giveOwnerAndMode(destination, status);
    const bool written = destination.CloseAndUnLockFile() != FALSE;
    if (!copied) errno = error;
    return copied && written;
}

}  // namespace

BOOL CopyFile(const char* from, const char* to, BYTE failIfExists) {
    if (from == nullptr || to == nullptr) {
        errno = EINVAL;
        return FALSE;
    }
    try {
        return copy(from, to, failIfExists != 0);
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return FALSE;
    }
}
