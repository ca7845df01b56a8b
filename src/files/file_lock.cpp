#include <traiklofox/clocks.h>
#include <traiklofox/diagnostics.h>
#include <traiklofox/file_lock.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "files/buffered_file.h"

using traiklofox::files::BufferedFile;
namespace sys = traiklofox::sys;

namespace {

constexpr int kLockedPermissions = 0664;
constexpr int kUnlockedPermissions = 0644;
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

bool isLockedMode(int mode) {
    for (const int locked : kLockedModes)
        if (locked == mode) return true;
    return false;
}

int openFlags(int mode) {
    struct Row {
        int mode;
        int flags;
    };
    static constexpr Row kRows[] = {
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
    constexpr int kAccess = FileLock::in | FileLock::out | FileLock::app | FileLock::trunc;
    for (const Row& row : kRows) {
        if (row.mode != (mode & kAccess)) continue;
        return row.flags | ((mode & FileLock::nocreate) != 0 ? 0 : O_CREAT) |
               ((mode & FileLock::noreplace) != 0 ? O_EXCL : 0);
    }
    return -1;
}

/// Opens the stream; false with errno.
bool open(BufferedFile& stream, const CKZString& name, int mode, mode_t permissions) {
    const int flags = openFlags(mode);
    if (flags == -1) {
        errno = EINVAL;
        return false;
    }
    sys::UniqueFd fd(sys::open(name.c_str(), flags, permissions));
    if (!fd) return false;
    if ((mode & FileLock::ate) != 0 && sys::lseek(fd.get(), 0, SEEK_END) == -1) return false;
    stream.attach(std::move(fd));
    return true;
}

}  // namespace

FileLock::FileLock(const char* fileName, int mode) : stream(std::make_unique<BufferedFile>()), openCount(0) {
    if (fileName != nullptr) (void)OpenAndLockFile(fileName, mode, nullptr, 0);  // the state tells
}

FileLock::~FileLock() {
    clearInformation();
}

void FileLock::clearInformation() {
    (void)stream->close();  // callers that must know flush first
    name.clear();
    openCount.store(0, std::memory_order_release);
}

BOOL FileLock::OpenAndLockFile(const char* fileName, int mode, int* already, int count) {
    if (openCount.load(std::memory_order_acquire) >= 1) {
        openCount.fetch_add(1, std::memory_order_acq_rel);
        if (already != nullptr) *already = 1;
        return TRUE;
    }
    name = fileName;
    errno = 0;
    // `out` is added so that the file may be locked; beside `in` it truncates nothing.
    while (!open(*stream, name, mode | out, kLockedPermissions)) {
        const int error = errno;
        if (error == EMFILE) {
            SleepEx(kDescriptorWaitMs, FALSE);
            continue;
        }
        if (error == EEXIST && (mode & noreplace) != 0) {
            if (already != nullptr) *already = 1;
            return FALSE;
        }
        unix_err("[FileLock::OpenAndLockFile] - Cannot open file %s, oflag:%#x, errno: %d,  %s\n",
                 name.c_str(), static_cast<unsigned int>(mode), error, std::strerror(error));
        errno = error;
        return FALSE;
    }
    if (!isLockedMode(mode)) return FALSE;
    if (!LockFile()) {
        const int error = errno;
        std::fprintf(stderr, "lock failed, %s\n", std::strerror(error));
        CloseFile();
        errno = error;
        return FALSE;
    }
    if (count != 0) openCount.store(1, std::memory_order_release);
    return TRUE;
}

BOOL FileLock::OpenFileUnLocked(const char* fileName, int mode) {
    clearInformation();
    name = fileName;
    return open(*stream, name, mode, kUnlockedPermissions);
}

BOOL FileLock::CloseFileUnLocked() {
    clearInformation();
    return TRUE;
}

BOOL FileLock::CloseAndUnLockFile() {
    if (openCount.load(std::memory_order_acquire) > 0 &&
        openCount.fetch_sub(1, std::memory_order_acq_rel) > 1)
        return TRUE;
    const bool written = Flush() != FALSE;
    if (!UnLockFile() && written) return FALSE;
    clearInformation();
    return written;
}

void FileLock::CloseFile() {
    (void)stream->close();  // callers that must know flush first
}

BOOL FileLock::LockFile() {
    return Flush() && sys::lockf(stream->descriptor(), F_LOCK, 0) == 0;
}

BOOL FileLock::UnLockFile() {
    return Flush() && sys::lockf(stream->descriptor(), F_ULOCK, 0) == 0;
}

int FileLock::GetFileDescriptor() const {
    return stream->descriptor();
}

int FileLock::FileStat(struct stat* status) {
    return Flush() ? sys::fstat(stream->descriptor(), status) : -1;
}

int FileLock::ReadBlk(char* buffer, int count) {
    if (count <= 0 || !stream->isOpen() || IsBad()) return 0;
    return static_cast<int>(stream->read(buffer, static_cast<size_t>(count)));
}

int FileLock::WriteBlk(const char* buffer, int count) {
    if (count <= 0 || !stream->isOpen()) return 0;
    return stream->write(buffer, static_cast<size_t>(count)) ? count : 0;
}

BOOL FileLock::ReadLine(char* buffer, int size) {
    if (size <= 0) return FALSE;
    buffer[0] = '\0';
    std::string_view line;
    const bool read = ReadLineView(line, static_cast<size_t>(size) - 1);
    std::memcpy(buffer, line.data(), line.size());
    buffer[line.size()] = '\0';
    return read;
}

bool FileLock::ReadLineView(std::string_view& line, size_t longest) {
    line = {};
    return stream->usable() && stream->readLine(line, longest);
}

BOOL FileLock::WriteLine(const char* buffer, int count) {
    if (count < 0 || !stream->usable()) return FALSE;
    return count == 0 || stream->write(buffer, static_cast<size_t>(count));
}

int FileLock::ReadCharacter() {
    if (!stream->usable()) return -1;
    char character = 0;
    if (stream->read(&character, 1) == 1) return static_cast<signed char>(character);
    stream->setFailed();
    return -1;
}

BOOL FileLock::Flush() {
    return stream->flush();
}

BOOL FileLock::Sync() {
    return Flush() && sys::fdatasync(stream->descriptor()) == 0;
}

int FileLock::GetState() const {
    return stream->state();
}
