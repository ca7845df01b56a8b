#include "registry/file_owner.h"

#include <traiklofox/copy_file.h>
#include <traiklofox/registry.h>

#include <cerrno>

#include "foundation/sys.h"

namespace traiklofox::registry {

bool giveToRegistryOwner(int fd) {
    (void)sys::fchown(fd, KzUserId, KzGroupId);
    if (sys::fchmod(fd, KzFileMode) == 0) return true;
    const int error = errno;
    // On a file system that knows no modes all files, the template among them, have one.
    struct statx status;
    const bool same = sys::fstat(fd, &status) == 0 && (status.stx_mode & 07777) == KzFileMode;
    errno = error;
    return same;
}

bool copyForRegistryOwner(const CKZString& from, const CKZString& to) {
    const sys::UniqueFd made(sys::open(to.c_str(), O_RDONLY | O_CREAT | O_EXCL, 0600));
    return made && CopyFile(from.c_str(), to.c_str(), /*failIfExists=*/FALSE) &&
           giveToRegistryOwner(made.get()) && sys::fdatasync(made.get()) == 0;
}

}  // namespace traiklofox::registry
