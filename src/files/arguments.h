#pragma once

// How the exported file functions read a handle and a path, and give a handle or a text back.

#include <traiklofox/handle.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <string_view>

#include "foundation/sys.h"
#include "kernel/handle_arguments.h"

namespace traiklofox::files {

/// The handle's descriptor; -1, which every system call refuses with EBADF, when it is none or not a file's.
inline int descriptorOf(Handle* handle) {
    const File* file = kernel::handleAs<File>(handle, HANDLE_KIND_FILE);
    return file != nullptr ? file->GetFd() : -1;
}

/// A new handle that owns the descriptor; null, with ENOMEM, when there is no memory.
inline Handle* fileHandle(sys::UniqueFd fd) {
    Handle* handle = new (std::nothrow) File(fd.get());
    if (handle == nullptr)
        errno = ENOMEM;
    else
        (void)fd.release();  // the handle has it now
    return handle;
}

/// False, with EINVAL, for a null path.
inline bool isGiven(const char* path) {
    if (path == nullptr) errno = EINVAL;
    return path != nullptr;
}

/// Copies `text` and a NUL into the caller's `buffer` and returns the length without the NUL; when it does not fit,
/// or there is no buffer, returns the size that it needs.
inline DWORD giveText(std::string_view text, char* buffer, DWORD size) {
    const auto length = static_cast<DWORD>(text.size());
    if (buffer == nullptr || size <= length) return length + 1;
    std::memcpy(buffer, text.data(), text.size());
    buffer[length] = '\0';
    return length;
}

}  // namespace traiklofox::files
