// create_file.cpp: from the codes of a CreateFile call to a handle.

#include <traiklofox/file_io.h>

#include <memory>
#include <new>

#include "files/arguments.h"
#include "files/directory_handle.h"
#include "files/report.h"
#include "foundation/sys.h"

using traiklofox::files::isGiven;
using traiklofox::files::report;
namespace sys = traiklofox::sys;

namespace {

constexpr mode_t kPermissions = 0644;

/// Not a code that has flags.
constexpr int kNone = -1;
constexpr int kAccessFlags[] = {
    /* 0 */ O_RDONLY,
    /* GENERIC_READ */ O_RDONLY,
    /* GENERIC_WRITE */ O_WRONLY,
    /* both */ O_RDWR,
    /* FILE_APPEND_DATA */ O_RDONLY | O_APPEND,
    /* and GENERIC_READ */ kNone,
    /* and GENERIC_WRITE */ O_WRONLY | O_APPEND,
    /* and both */ O_RDWR | O_APPEND,
};
constexpr int kDispositionFlags[] = {
    kNone,
    /* CREATE_NEW */ O_CREAT | O_EXCL,
    /* CREATE_ALWAYS */ O_CREAT | O_TRUNC,
    /* OPEN_EXISTING */ 0,
    /* OPEN_ALWAYS */ O_CREAT,
    /* TRUNCATE_EXISTING */ O_CREAT | O_TRUNC,
};
static_assert(std::size(kAccessFlags) == (GENERIC_READ | GENERIC_WRITE | FILE_APPEND_DATA) + 1);
static_assert(std::size(kDispositionFlags) == TRUNCATE_EXISTING + 1);

template <size_t Count>
int flagsFor(const int (&table)[Count], DWORD code) {
    return code < Count ? table[code] : kNone;
}

int openFlags(DWORD access, DWORD disposition) {
    int accessFlags = flagsFor(kAccessFlags, access);
    if (accessFlags == kNone) {
        report("CreateFile: dwDesiredAccess mode of %d not suppported\n", static_cast<int>(access));
        accessFlags = O_RDONLY;
    }
    int dispositionFlags = flagsFor(kDispositionFlags, disposition);
    if (dispositionFlags == kNone) {
        report("CreateFile: dwCreationDistribution of %d not suppported\n", static_cast<int>(disposition));
        dispositionFlags = 0;
    }
    return accessFlags | dispositionFlags;
}

Handle* openDirectory(const char* path, DWORD access) {
    struct statx status;
    if (sys::stat(path, &status) != 0) return INVALID_HANDLE_VALUE;
    if (!S_ISDIR(status.stx_mode)) {
        errno = ENOTDIR;
        return INVALID_HANDLE_VALUE;
    }
    if ((access & GENERIC_READ) == 0) {
        errno = EINVAL;
        return nullptr;
    }
    try {
        Handle* opened = traiklofox::files::openChangeNotification(path);
        return opened != nullptr ? opened : INVALID_HANDLE_VALUE;
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return INVALID_HANDLE_VALUE;
    }
}

}  // namespace

Handle* CreateFile(const char* path, DWORD access, DWORD, _SECURITY_ATTRIBUTES*, DWORD disposition,
                   DWORD flags, Handle*) {
    if (!isGiven(path)) return INVALID_HANDLE_VALUE;
    const int openAs = openFlags(access, disposition);
    if ((flags & FILE_FLAG_BACKUP_SEMANTICS) != 0) return openDirectory(path, access);

    sys::UniqueFd fd(sys::open(path, openAs, kPermissions));
    if (!fd) return INVALID_HANDLE_VALUE;
    Handle* file = traiklofox::files::fileHandle(std::move(fd));
    return file != nullptr ? file : INVALID_HANDLE_VALUE;
}
