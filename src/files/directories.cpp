// directories.cpp: making and removing directories, and the current one.

#include <limits.h>
#include <traiklofox/directories.h>

#include <new>
#include <string>
#include <string_view>

#include "files/arguments.h"
#include "files/directory_stream.h"
#include "foundation/sys.h"

using traiklofox::files::isGiven;
namespace sys = traiklofox::sys;

namespace {

constexpr mode_t kPermissions = 0755;
constexpr mode_t kModeBits = 07777;
constexpr std::string_view kMarkerPrefix = ".KZ";

bool deleteMarkers(const char* path) {
    traiklofox::files::DirectoryStream entries(path);
    if (!entries) return false;
    std::string marker = path;
    const size_t length = marker.size();
    while (const dirent* entry = entries.next()) {
        if (!std::string_view(entry->d_name).starts_with(kMarkerPrefix)) continue;
        marker.replace(length, std::string::npos,
                       entry->d_name);      // right behind the path, whatever that ends with
        (void)sys::unlink(marker.c_str());  // one that stays keeps the directory, too
    }
    return true;
}

/// Where the link leads, from where we stand.
std::string placeOf(std::string_view link, std::string_view target) {
    if (target.starts_with('/') || link.size() < 2) return std::string(target);
    const size_t slash = link.rfind('/', link.size() - 2);
    const size_t directory = slash == std::string_view::npos ? 0 : slash + 1;
    return std::string(link.substr(0, directory)).append(target);
}

/// False, with errno as it was, when `path` is no symbolic link.
bool removeLinkAndTarget(const char* path) {
    const int error = errno;
    struct statx status;
    if (sys::lstat(path, &status) != 0) return false;
    if (!S_ISLNK(status.stx_mode)) {
        errno = error;
        return false;
    }
    char target[PATH_MAX];
    const ssize_t length = sys::readlink(path, target, sizeof target);
    if (length < 0) return false;
    (void)sys::rmdir(
        placeOf(path, {target, static_cast<size_t>(length)}).c_str());  // what is not empty stays
    return sys::unlink(path) == 0;
}

bool removeDirectory(const char* path) {
    if (sys::rmdir(path) == 0) return true;
    if (errno == EEXIST) {
        if (!deleteMarkers(path)) return false;
        if (sys::rmdir(path) == 0) return true;
    }
    return errno == ENOTDIR && removeLinkAndTarget(path);
}

}  // namespace

BOOL CreateDirectory(const char* path, _SECURITY_ATTRIBUTES* security) {
    return CreateDirectoryEx(/*templateDirectory=*/nullptr, path, security);
}

BOOL CreateDirectoryEx(const char* templateDirectory, const char* path, _SECURITY_ATTRIBUTES*) {
    if (!isGiven(path) || (sys::mkdir(path, kPermissions) != 0 && errno != EEXIST)) return FALSE;
    if (templateDirectory == nullptr) return TRUE;

    struct statx model;
    if (sys::stat(templateDirectory, &model) != 0) {
        const int error = errno;
        (void)sys::rmdir(path);  // what is in use stays
        errno = error;
        return FALSE;
    }
    (void)sys::chmod(path, model.stx_mode & kModeBits);  // as far as we may
    (void)sys::chown(path, model.stx_uid, model.stx_gid);
    return TRUE;
}

BOOL RemoveDirectory(const char* path) {
    if (!isGiven(path)) return FALSE;
    try {
        return removeDirectory(path);
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return FALSE;
    }
}

BOOL SetCurrentDirectory(const char* path) {
    return isGiven(path) && sys::chdir(path) == 0;
}

DWORD GetCurrentDirectory(DWORD size, char* buffer) {
    char path[PATH_MAX];
    if (sys::getcwd(path, sizeof path) == nullptr) return 0;
    return traiklofox::files::giveText(path, buffer, size);
}
