#include "registry/file_owner.h"

#include <traiklofox/registry.h>

#include <array>
#include <cerrno>

#include "foundation/sys.h"

namespace traiklofox::registry {

namespace {

bool copyContent(int from, int to) {
    std::array<char, 16 * 1024> block;
    for (;;) {
        const ssize_t got = sys::read(from, block.data(), block.size());
        if (got <= 0) return got == 0;
        if (!sys::writeAll(to, block.data(), static_cast<size_t>(got))) return false;
    }
}

}  // namespace

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
    const sys::UniqueFd source(sys::open(from.c_str(), O_RDONLY));
    if (!source) return false;
    const sys::UniqueFd made(sys::open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600));
    return made && copyContent(source.get(), made.get()) && giveToRegistryOwner(made.get()) &&
           sys::fdatasync(made.get()) == 0;
}

}  // namespace traiklofox::registry
