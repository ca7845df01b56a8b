#include <traiklofox/copy_file.h>
#include <traiklofox/file_lock.h>
#include <traiklofox/settings.h>

#include <algorithm>
#include <cerrno>
#include <memory>

#include "foundation/sys.h"

namespace sys = traiklofox::sys;

namespace {

constexpr int kSourceMode = FileLock::in | FileLock::nocreate;
constexpr int kReplaceMode = FileLock::out | FileLock::trunc;

/// True when `path` is the file that `opened` describes, by whatever name.
bool isSameFile(const struct stat& opened, const char* path) {
    struct stat other {};
    return sys::stat(path, &other) == 0 && other.st_dev == opened.st_dev && other.st_ino == opened.st_ino;
}

bool copyContent(FileLock& source, FileLock& destination, size_t blockSize) {
    const auto block = std::make_unique<char[]>(blockSize);
    for (;;) {
        const int got = source.ReadBlk(block.get(), static_cast<int>(blockSize));
        if (got < 1) return !source.IsBad();
        if (destination.WriteBlk(block.get(), got) != got) return false;
    }
}

/// Owner and mode of the source, as far as the process may give them.
void giveOwner(FileLock& destination, const struct stat& source) {
    (void)sys::fchown(destination.GetFileDescriptor(), source.st_uid, source.st_gid);
    (void)sys::fchmod(destination.GetFileDescriptor(), source.st_mode & 07777);
}

bool copy(const char* from, const char* to, bool failIfExists) {
    FileLock source(nullptr, 0);
    if (!source.OpenAndLockFile(from, kSourceMode, nullptr, 0)) return false;
    struct stat status {};
    if (source.FileStat(&status) != 0) return false;
    // Before the destination is opened, which empties it.
    if (isSameFile(status, to)) {
        errno = EEXIST;
        return false;
    }
    FileLock destination(nullptr, 0);
    const int mode = failIfExists ? kReplaceMode | FileLock::noreplace : kReplaceMode;
    if (!destination.OpenAndLockFile(to, mode, nullptr, 0)) return false;
    constexpr blksize_t kLargestBlock = 1 << 20;
    const auto blockSize = static_cast<size_t>(std::clamp<blksize_t>(status.st_blksize, 512, kLargestBlock));
    bool copied = copyContent(source, destination, blockSize);
    if (!bRunningInServer) giveOwner(destination, status);
    const int error = errno;
    if (!destination.CloseAndUnLockFile()) return false;
    errno = error;
    return copied;
}

}  // namespace

BOOL CopyFile(const char* from, const char* to, BYTE failIfExists) {
    if (from == nullptr || to == nullptr) {
        errno = EINVAL;
        return FALSE;
    }
    return copy(from, to, failIfExists != 0);
}
