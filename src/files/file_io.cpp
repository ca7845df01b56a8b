// file_io.cpp: what is done with an open file.

#include <traiklofox/file_io.h>

#include <cstdint>
#include <cstring>

#include "files/arguments.h"
#include "files/file_time.h"
#include "files/report.h"
#include "foundation/sys.h"

using traiklofox::files::descriptorOf;
using traiklofox::files::fileTimeOf;
using traiklofox::files::report;
namespace sys = traiklofox::sys;

namespace {

constexpr off_t kFixedEnd = 1;

/// As it is printed with "%d".
int numberOf(const Handle* handle) {
    return static_cast<int>(reinterpret_cast<std::intptr_t>(handle));
}

bool isWanted(const DWORD* transferred) {
    if (transferred == nullptr) errno = EINVAL;
    return transferred != nullptr;
}

}  // namespace

BOOL ReadFile(Handle* file, void* buffer, DWORD count, DWORD* bytesRead, _OVERLAPPED*) {
    if (!isWanted(bytesRead)) return FALSE;
    const ssize_t got = sys::read(descriptorOf(file), buffer, count);
    *bytesRead = static_cast<DWORD>(got);
    return got != -1;
}

BOOL WriteFile(Handle* file, const void* data, DWORD count, DWORD* bytesWritten, _OVERLAPPED*) {
    if (!isWanted(bytesWritten)) return FALSE;
    const ssize_t written = sys::write(descriptorOf(file), data, count);
    *bytesWritten = static_cast<DWORD>(written);
    return written != -1 && *bytesWritten == count;
}

BOOL FlushFileBuffers(Handle* file) {
    return sys::fsync(descriptorOf(file)) == 0;
}

DWORD SetFilePointer(Handle* file, LONG distance, LONG*, DWORD method) {
    return static_cast<DWORD>(sys::lseek(descriptorOf(file), distance, static_cast<int>(method)));
}

LONG tell(int fd) {
    return static_cast<LONG>(sys::lseek(fd, kFixedEnd, SEEK_SET));
}

BOOL SetEndOfFile(Handle* file) {
    const int fd = descriptorOf(file);
    return tell(fd) != -1 && sys::ftruncate(fd, kFixedEnd) == 0;
}

DWORD GetFileSize(Handle* file, DWORD* sizeHigh) {
    if (sizeHigh != nullptr) *sizeHigh = 0;
    struct statx status;
    if (sys::fstat(descriptorOf(file), &status) == 0) return static_cast<DWORD>(status.stx_size);
    report("GetFileSize: for fd %d errno: %s\n", numberOf(file), std::strerror(errno));
    return INVALID_FILE_SIZE;
}

BOOL GetFileTime(Handle* file, _FILETIME* created, _FILETIME* accessed, _FILETIME* written) {
    struct statx status {};
    if (sys::fstat(descriptorOf(file), &status) != 0)
        report("GetFileTime: for fd %d errno: %s\n", numberOf(file), std::strerror(errno));
    if (created != nullptr) *created = fileTimeOf(status.stx_mtime.tv_sec);
    if (accessed != nullptr) *accessed = fileTimeOf(status.stx_atime.tv_sec);
    if (written != nullptr) *written = fileTimeOf(status.stx_mtime.tv_sec);
    return TRUE;
}
