// file_lock.cpp: opening, locking, counting and closing. The bytes go through a BufferedFile.
//
// `opening` is held while the file is opened and while it is closed, the wait for the file's lock included: a
// second opener must wait for that anyway, and nobody can wish to close what is not open yet.

#include <traiklofox/clocks.h>
#include <traiklofox/diagnostics.h>
#include <traiklofox/file_lock.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "files/buffered_file.h"
#include "files/file_status.h"
#include "foundation/lock_rank.h"

using traiklofox::files::BufferedFile;
using traiklofox::foundation::LockRank;
namespace sys = traiklofox::sys;

static_assert(FileLock::eofbit == BufferedFile::kEndOfFile && FileLock::failbit == BufferedFile::kFailed &&
              FileLock::badbit == BufferedFile::kBad);

/// Holds `opening` for a scope.
class TRAIKLOFOX_SCOPED_CAPABILITY FileLock::Section {
  public:
    explicit Section(FileLock& file) TRAIKLOFOX_ACQUIRE(file) TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS
        : file_(file) {
        pthread_mutex_lock(&file_.opening);
        traiklofox::foundation::noteLockAcquired(LockRank::Leaf, &file_);
    }
    ~Section() TRAIKLOFOX_RELEASE() TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
        traiklofox::foundation::noteLockReleased(LockRank::Leaf, &file_);
        pthread_mutex_unlock(&file_.opening);
    }
    Section(const Section&) = delete;
    Section& operator=(const Section&) = delete;

  private:
    FileLock& file_;
};

namespace {

constexpr unsigned int kLockedPermissions = 0664;
constexpr unsigned int kUnlockedPermissions = 0644;
constexpr DWORD kDescriptorWaitMs = 10;

constexpr int kLockedModes[] = {
    FileLock::in,
    FileLock::out | FileLock::trunc,
    FileLock::in | FileLock::out | FileLock::trunc,
    FileLock::in | FileLock::nocreate,
    FileLock::out | FileLock::trunc | FileLock::nocreate,
    FileLock::in | FileLock::out | FileLock::trunc | FileLock::nocreate,
    FileLock::out | FileLock::trunc | FileLock::noreplace,
};

constexpr struct {
    int mode;
    int flags;
} kAccess[] = {
    {FileLock::in, O_RDONLY},
    {FileLock::out, O_WRONLY | O_TRUNC},
    {FileLock::out | FileLock::trunc, O_WRONLY | O_TRUNC},
    {FileLock::app, O_WRONLY | O_APPEND},
    {FileLock::app | FileLock::out, O_WRONLY | O_APPEND},
    {FileLock::in | FileLock::out, O_RDWR},
    {FileLock::in | FileLock::out | FileLock::trunc, O_RDWR | O_TRUNC},
    {FileLock::in | FileLock::app, O_RDWR | O_APPEND},
    {FileLock::in | FileLock::out | FileLock::app, O_RDWR | O_APPEND},
};

constexpr int kModifiers = FileLock::ate | FileLock::nocreate | FileLock::noreplace;
constexpr int kRefused = -1;

bool isLockedMode(int mode) {
    return std::find(std::begin(kLockedModes), std::end(kLockedModes), mode) != std::end(kLockedModes);
}

/// The flags for `open`, or kRefused.
int openFlags(int mode) {
    for (const auto& row : kAccess) {
        if (row.mode != (mode & ~kModifiers)) continue;
        return row.flags | ((mode & FileLock::nocreate) != 0 ? 0 : O_CREAT) |
               ((mode & FileLock::noreplace) != 0 ? O_EXCL : 0);
    }
    return kRefused;
}

/// Empties a file that could have been opened with O_TRUNC, which does nothing to a device or a pipe.
bool truncateOpened(int fd) {
    struct statx status;
    if (sys::fstat(fd, &status) != 0) return false;
    return !S_ISREG(status.stx_mode) || sys::ftruncate(fd, 0) == 0;
}

void reportOpenFailure(const char* name, int mode, int error) {
    unix_err("[FileLock::OpenAndLockFile] - Cannot open file %s, oflag:%#x, errno: %d,  %s\n", name,
             static_cast<unsigned int>(mode), error, std::strerror(error));
}

}  // namespace

FileLock::FileLock(const char* fileName, int mode) : stream(std::make_unique<BufferedFile>()) {
    if (fileName != nullptr) (void)OpenAndLockFile(fileName, mode, /*already=*/nullptr, /*count=*/0);
}

FileLock::~FileLock() {
    {
        const Section section(*this);
        (void)clearInformation();  // who must know has flushed before
    }
    pthread_mutex_destroy(&opening);
}

// False when buffered text could not be written, or the system reported a late write error.
bool FileLock::clearInformation() {
    name.clear();
    openCount = 0;
    return stream->close();
}

// Leaves the object closed, failed, and errno as it was.
void FileLock::failToOpen(int error) {
    (void)clearInformation();  // nothing was written to it yet
    stream->setFailed();
    errno = error;
}

// Opens the stream after closing what was open. False with errno.
bool FileLock::open(const char* fileName, int flags, unsigned int permissions, bool atEnd) {
    (void)clearInformation();  // who must know has flushed or closed before
    name = fileName;
    if (flags == kRefused) {
        errno = EINVAL;
        return false;
    }
    errno = 0;
    sys::UniqueFd fd(sys::open(name.c_str(), flags, permissions));
    if (!fd || (atEnd && sys::lseek(fd.get(), 0, SEEK_END) == -1)) return false;
    stream->attach(std::move(fd));
    return true;
}

BOOL FileLock::OpenAndLockFile(const char* fileName, int mode, int* already, int count) {
    const Section section(*this);
    if (openCount > 0) {
        ++openCount;
        if (already != nullptr) *already = 1;
        return TRUE;
    }

    const bool locks = isLockedMode(mode);
    const int flags = openFlags(mode | out);
    const bool truncatesLater = locks && flags != kRefused && (flags & O_TRUNC) != 0;
    while (
        !open(fileName, truncatesLater ? flags & ~O_TRUNC : flags, kLockedPermissions, (mode & ate) != 0)) {
        const int error = errno;
        if (error == EMFILE) {
            SleepEx(kDescriptorWaitMs, FALSE);
            continue;
        }
        if (error == EEXIST && (mode & noreplace) != 0) {
            if (already != nullptr) *already = 1;
        } else {
            reportOpenFailure(name.c_str(), mode, error);
        }
        failToOpen(error);
        return FALSE;
    }
    if (!locks) {
        if (count != 0) openCount = 1;
        return FALSE;
    }

    if (!lockWholeFile(F_LOCK)) {
        const int error = errno;
        std::fprintf(stderr, "lock failed, %s\n", std::strerror(error));
        failToOpen(error);
        return FALSE;
    }
    if (truncatesLater && !truncateOpened(stream->descriptor())) {
        const int error = errno;
        reportOpenFailure(name.c_str(), mode, error);
        failToOpen(error);
        return FALSE;
    }
    if (count != 0) openCount = 1;
    return TRUE;
}

BOOL FileLock::OpenFileUnLocked(const char* fileName, int mode) {
    const Section section(*this);
    if (open(fileName, openFlags(mode), kUnlockedPermissions, (mode & ate) != 0)) return TRUE;
    failToOpen(errno);
    return FALSE;
}

BOOL FileLock::CloseFileUnLocked() {
    const Section section(*this);
    return clearInformation();
}

BOOL FileLock::CloseAndUnLockFile() {
    const Section section(*this);
    if (openCount > 0 && --openCount > 0) return TRUE;
    (void)stream->flush();  // before others look; closing tells if it failed
    if (!lockWholeFile(F_ULOCK)) return FALSE;
    return clearInformation();
}

void FileLock::CloseFile() {
    const Section section(*this);
    (void)clearInformation();  // no result, as callers know it
}

// `lockf` works from the file's position on, so that stands at the beginning meanwhile.
bool FileLock::lockWholeFile(int command) {
    const int fd = stream->descriptor();
    const off_t position = sys::lseek(fd, 0, SEEK_CUR);  // -1 where there is none: a pipe is locked as it is
    if (position > 0 && sys::lseek(fd, 0, SEEK_SET) == -1) return false;
    const bool done = sys::lockf(fd, command, 0) == 0;
    const int error = errno;
    if (position > 0 && sys::lseek(fd, position, SEEK_SET) == -1) return false;
    errno = error;
    return done;
}

BOOL FileLock::LockFile() {
    return Flush() && lockWholeFile(F_LOCK);
}

BOOL FileLock::UnLockFile() {
    const bool written = stream->flush();
    const int error = errno;
    const bool unlocked = lockWholeFile(F_ULOCK);
    if (!written) errno = error;
    return written && unlocked;
}

int FileLock::GetFileDescriptor() const {
    return stream->descriptor();
}

BOOL FileLock::FileStat(KZFileStatus* status) {
    struct statx found;
    if (!Flush() || sys::fstat(GetFileDescriptor(), &found) != 0) return FALSE;
    traiklofox::files::take(found, *status);
    return TRUE;
}

int FileLock::ReadBlk(void* buffer, int count) {
    return count > 0 ? static_cast<int>(stream->read(static_cast<char*>(buffer), static_cast<size_t>(count)))
                     : 0;
}

int FileLock::WriteBlk(const void* buffer, int count) {
    if (count <= 0) return 0;
    return stream->write(static_cast<const char*>(buffer), static_cast<size_t>(count)) ? count : 0;
}

BOOL FileLock::ReadLine(char* buffer, int size) {
    if (size <= 0) return FALSE;
    std::string_view line;
    const bool read = ReadLineView(line, static_cast<size_t>(size) - 1);
    std::copy(line.begin(), line.end(), buffer);
    buffer[line.size()] = '\0';
    return read;
}

bool FileLock::ReadLineView(std::string_view& line, size_t longest) {
    line = {};
    return stream->isUsable() && stream->readLine(line, longest);
}

BOOL FileLock::WriteLine(const char* text, int count) {
    if (count < 0 || !stream->isUsable()) return FALSE;
    return stream->write(text, static_cast<size_t>(count));
}

int FileLock::ReadCharacter() {
    char character = 0;
    if (!stream->isUsable() || stream->read(&character, 1) == 0) return -1;
    return static_cast<signed char>(character);
}

BOOL FileLock::Flush() {
    return stream->flush();
}

BOOL FileLock::Sync() {
    return stream->flush() && stream->sync();
}

int FileLock::GetState() const {
    return stream->state();
}
