#include "profiles/profile_file.h"

#include <traiklofox/temp_name.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>

#include "foundation/on_exit.h"
#include "foundation/sys.h"

namespace traiklofox::profiles {

namespace {

constexpr std::uint64_t kLargest = std::uint64_t{256} << 20;
constexpr std::int64_t kTickUs = 20'000;  // at most, of the clock that files' times come from
constexpr mode_t kNewMode = 0644;
constexpr mode_t kModeBits = 07777;

FileState stateFrom(const struct statx& status) {
    return {.exists = true,
            .device = (std::uint64_t{status.stx_dev_major} << 32) | status.stx_dev_minor,
            .inode = status.stx_ino,
            .size = status.stx_size,
            .seconds = status.stx_mtime.tv_sec,
            .nanoseconds = status.stx_mtime.tv_nsec};
}

bool isSettled(const FileState& state) {
    const timeval now = sys::now();
    const std::int64_t ageUs =
        (now.tv_sec - state.seconds) * 1'000'000 + now.tv_usec - state.nanoseconds / 1000;
    return ageUs > kTickUs || ageUs < -kTickUs;
}

bool readAll(int fd, std::string& text) {
    for (;;) {
        const size_t done = text.size();
        if (done > kLargest) {
            errno = EFBIG;
            return false;
        }
        constexpr size_t kMore = 64 * 1024;
        text.resize(done + kMore);
        const ssize_t got = sys::read(fd, text.data() + done, kMore);
        if (got < 0) return false;
        text.resize(done + static_cast<size_t>(got));
        if (got == 0) return true;
    }
}

/// Gives an open file the owner and mode of the one that it is to replace.
bool takeAfter(int fd, const struct statx& old) {
    // Only root may give a file away; for others it stays theirs, with the group where they may.
    if (sys::fchown(fd, old.stx_uid, old.stx_gid) != 0)
        (void)sys::fchown(fd, static_cast<uid_t>(-1), old.stx_gid);
    return sys::fchmod(fd, static_cast<mode_t>(old.stx_mode & kModeBits)) == 0;
}

}  // namespace

std::optional<FileState> stateOf(const char* path) {
    struct statx status {};
    if (sys::stat(path, &status) == 0) return stateFrom(status);
    if (errno == ENOENT || errno == ENOTDIR) return FileState{};
    return std::nullopt;
}

std::optional<FileContent> readFile(const char* path) {
    // Without waiting: a pipe of that name is refused below.
    const sys::UniqueFd file(sys::open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY));
    if (!file) {
        if (errno == ENOENT || errno == ENOTDIR) return FileContent{};
        return std::nullopt;
    }
    struct statx status {};
    if (sys::fstat(file.get(), &status) != 0) return std::nullopt;
    if (!S_ISREG(status.stx_mode)) {
        errno = S_ISDIR(status.stx_mode) ? EISDIR : EINVAL;
        return std::nullopt;
    }
    FileContent content;
    content.state = stateFrom(status);
    content.isSettled = isSettled(content.state);
    if (content.state.size <= kLargest) content.text.reserve(static_cast<size_t>(content.state.size) + 1);
    if (!readAll(file.get(), content.text)) return std::nullopt;
    return content;
}

std::string targetOf(const std::string& path) {
    const std::unique_ptr<char, decltype(&std::free)> real(::realpath(path.c_str(), nullptr), &std::free);
    return real ? real.get() : path;
}

bool replaceFile(const std::string& path, const std::string& text) {
    const size_t slash = path.rfind('/');
    const CKZString temporary = KZTempNam(slash == path.npos ? "" : path.substr(0, slash + 1));
    struct statx old {};
    const bool isNew = sys::stat(path.c_str(), &old) != 0;
    if (isNew && errno != ENOENT) return false;
    // A rename asks for no permission of the file's.
    if (!isNew && sys::access(path.c_str(), W_OK) != 0) return false;

    // Until it has its owner and mode, nobody else may read it.
    sys::UniqueFd file(sys::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL, isNew ? kNewMode : 0600));
    if (!file) return false;
    auto removeTemporary = foundation::onExit([&] {
        const int error = errno;
        (void)sys::unlink(temporary.c_str());  // the failure before it is the one to tell
        errno = error;
    });
    if (!sys::writeAll(file.get(), text.data(), text.size())) return false;
    if (!isNew && !takeAfter(file.get(), old)) return false;
    if (sys::fsync(file.get()) != 0 || sys::close(file.release()) != 0) return false;
    if (sys::rename(temporary.c_str(), path.c_str()) != 0) return false;
    removeTemporary.dismiss();
    return sys::syncDirectory(slash == path.npos ? "." : path.substr(0, std::max<size_t>(slash, 1)).c_str());
}

}  // namespace traiklofox::profiles
