// file_mapping.cpp: opening, making and sizing the file that stands behind a named mapping.
//
// Its place is one where everyone may put things, so nothing is opened there that is not a plain file of one name.

#include <traiklofox/clocks.h>
#include <traiklofox/file_mapping.h>

#include <cstring>
#include <new>
#include <string>

#include "files/arguments.h"
#include "files/mapping_header.h"
#include "foundation/on_exit.h"
#include "foundation/sys.h"

using traiklofox::files::kMappingHeader;
namespace sys = traiklofox::sys;

namespace {

constexpr const char* kBackingPrefix = "/tmp/.";
constexpr mode_t kPermissions = 0664;
constexpr mode_t kModeBits = 07777;
constexpr int kSafely = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;  // a pipe would wait for its other end
constexpr int kAttempts = 100;  // against someone who makes and deletes it all the time
constexpr DWORD kSizingWaitMs = 1000;
constexpr DWORD kSizingStepMs = 2;

bool isMappingName(const char* name) {
    return name != nullptr && *name != '\0' && std::strchr(name, '/') == nullptr;
}

/// The file, and whether this call made it. A file without a descriptor could not be opened.
struct Backing {
    sys::UniqueFd fd;
    bool isNew = false;
};

/// What exists is opened without O_CREAT, which kernels that protect a sticky directory refuse for others' files.
Backing openBacking(const char* path, int flags) {
    const bool isReadOnly = (flags & O_ACCMODE) == O_RDONLY;
    const int making = (isReadOnly ? flags | O_RDWR : flags) | O_CREAT | O_EXCL;  // who makes it, sizes it
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        sys::UniqueFd existing(sys::open(path, flags));
        if (existing || errno != ENOENT) return {std::move(existing), false};
        sys::UniqueFd made(sys::open(path, making, kPermissions));
        if (made || errno != EEXIST) return {std::move(made), true};
    }
    return {};
}

/// False, with errno, for a directory or device, and for a file that is known elsewhere by another name: its owner,
/// mode and content are not ours to change.
bool isOwnPlainFile(int fd) {
    struct statx status;
    if (sys::fstat(fd, &status) != 0) return false;
    if (S_ISREG(status.stx_mode) && status.stx_nlink <= 1) return true;
    errno = EPERM;
    return false;
}

/// So that every process of the installation can open it.
void giveToInstallation(int fd) {
    struct statx model;
    if (sys::stat(TRAIKLOFOX_TEMPLATE_FILE, &model) != 0) return;
    (void)sys::fchown(fd, model.stx_uid, model.stx_gid);  // as far as we may
    (void)sys::fchmod(fd, model.stx_mode & kModeBits);
}

enum class Sizing { Done, NeverDone, Unknown };

Sizing waitForSizing(int fd) {
    for (DWORD waited = 0;; waited += kSizingStepMs) {
        struct statx status;
        if (sys::fstat(fd, &status) != 0) return Sizing::Unknown;
        if (status.stx_size > 0) return Sizing::Done;
        if (waited >= kSizingWaitMs) return Sizing::NeverDone;
        SleepEx(kSizingStepMs, FALSE);
    }
}

/// Sizes a new file, and an old one whose maker must have died, which then counts as new. False with errno.
bool size(Backing& backing, const char* path, off_t length) {
    if (backing.isNew) {
        auto removeUnsized = traiklofox::foundation::onExit([&] {
            const int error = errno;
            (void)sys::unlink(path);
            errno = error;
        });
        if (sys::ftruncate(backing.fd.get(), length) != 0) return false;
        removeUnsized.dismiss();
        return true;
    }
    const Sizing sizing = waitForSizing(backing.fd.get());
    if (sizing != Sizing::NeverDone) return sizing == Sizing::Done;
    backing.isNew = true;
    return sys::ftruncate(backing.fd.get(), length) == 0;
}

Handle* createMapping(DWORD protection, DWORD sizeLow, const char* name) {
    const std::string path = std::string(kBackingPrefix) + name;
    const int flags = static_cast<int>(protection) | kSafely;
    Backing backing = openBacking(path.c_str(), flags);
    if (!backing.fd || !isOwnPlainFile(backing.fd.get())) return nullptr;
    giveToInstallation(backing.fd.get());
    if (!size(backing, path.c_str(), static_cast<off_t>(sizeLow) + kMappingHeader)) return nullptr;

    const bool isReadOnly = (flags & O_ACCMODE) == O_RDONLY;
    if (backing.isNew && isReadOnly) backing.fd.reset(sys::open(path.c_str(), flags));
    if (!backing.fd) return nullptr;
    Handle* mapping = traiklofox::files::fileHandle(std::move(backing.fd));
    if (mapping != nullptr) errno = backing.isNew ? 0 : EEXIST;
    return mapping;
}

}  // namespace

Handle* CreateFileMapping(Handle* file, _SECURITY_ATTRIBUTES*, DWORD protection, DWORD, DWORD sizeLow,
                          const char* name) {
    if (file != INVALID_HANDLE_VALUE || !isMappingName(name)) {
        errno = EINVAL;
        return nullptr;
    }
    try {
        return createMapping(protection, sizeLow, name);
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return nullptr;
    }
}
