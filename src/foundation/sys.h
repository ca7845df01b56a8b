#pragma once

// The one thin layer over the system calls that can fail or that a test must control. The policies stand here
// once: EINTR is retried (a sleep, a `ppoll` and a `futexWait` excepted, whose callers want to know), `close` never is,
// and every descriptor is close-on-exec. Each function is one inline call; a test makes the n-th one fail, or
// time jump, by wrapping the C library's function at link time (tests/support/fault_injection.h).

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/futex.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/epoll.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
extern "C" {
#include <sys/pidfd.h>  // which does not say itself that it is C
}

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <utility>

namespace traiklofox::sys {

template <class Call>
auto retryInterrupted(Call call) {
    auto result = call();
    while (result == -1 && errno == EINTR) result = call();
    return result;
}

inline int open(const char* path, int flags, mode_t mode = 0) {
    return retryInterrupted([&] { return ::open(path, flags | O_CLOEXEC, mode); });
}

/// A path relative to an open directory, to be read.
inline int openForReadingAt(int directory, const char* path) {
    return retryInterrupted([&] { return ::openat(directory, path, O_RDONLY | O_CLOEXEC); });
}

/// Never retried: Linux has freed the descriptor even when `close` fails with EINTR.
inline int close(int fd) {
    return ::close(fd);
}

inline ssize_t read(int fd, void* buffer, size_t size) {
    return retryInterrupted([&] { return ::read(fd, buffer, size); });
}

/// May write less than `size`, as the system call may.
inline ssize_t write(int fd, const void* data, size_t size) {
    return retryInterrupted([&] { return ::write(fd, data, size); });
}

/// Writes all of `data`, in as many calls as that takes. False: errno says why, and some of it may be
/// written.
inline bool writeAll(int fd, const void* data, size_t size) {
    const char* next = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t written = sys::write(fd, next, size);
        if (written < 0) return false;
        next += written;
        size -= static_cast<size_t>(written);
    }
    return true;
}

inline off_t lseek(int fd, off_t offset, int whence) {
    return ::lseek(fd, offset, whence);
}
inline int ftruncate(int fd, off_t size) {
    return retryInterrupted([&] { return ::ftruncate(fd, size); });
}
inline int fdatasync(int fd) {
    return retryInterrupted([&] { return ::fdatasync(fd); });
}
inline int fsync(int fd) {
    return retryInterrupted([&] { return ::fsync(fd); });
}
inline int lockf(int fd, int command, off_t length) {
    return retryInterrupted([&] { return ::lockf(fd, command, length); });
}
inline int flock(int fd, int operation) {
    return retryInterrupted([&] { return ::flock(fd, operation); });
}

/// What a name in a directory stands for. All four tell it by `statx`, since `stat` on 32 bits fails for a file that is
/// dated later than 2038.
inline int statx(int directory, const char* name, int flags, struct statx* status) {
    return ::statx(directory, name, flags, STATX_BASIC_STATS, status);
}
inline int stat(const char* path, struct statx* status) {
    return sys::statx(AT_FDCWD, path, AT_NO_AUTOMOUNT, status);
}
inline int lstat(const char* path, struct statx* status) {
    return sys::statx(AT_FDCWD, path, AT_NO_AUTOMOUNT | AT_SYMLINK_NOFOLLOW, status);
}
inline int fstat(int fd, struct statx* status) {
    return sys::statx(fd, "", AT_EMPTY_PATH, status);
}
inline int access(const char* path, int mode) {
    return ::access(path, mode);
}
inline int chmod(const char* path, mode_t mode) {
    return ::chmod(path, mode);
}
inline int fchmod(int fd, mode_t mode) {
    return ::fchmod(fd, mode);
}
inline int chown(const char* path, uid_t owner, gid_t group) {
    return ::chown(path, owner, group);
}
inline int fchown(int fd, uid_t owner, gid_t group) {
    return ::fchown(fd, owner, group);
}
inline int mkdir(const char* path, mode_t mode) {
    return ::mkdir(path, mode);
}
inline int rmdir(const char* path) {
    return ::rmdir(path);
}
inline int rename(const char* from, const char* to) {
    return ::rename(from, to);
}
/// EEXIST when `to` exists; EINVAL on a file system that cannot tell.
inline int renameNoReplace(const char* from, const char* to) {
    return ::renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE);
}
inline int link(const char* existing, const char* name) {
    return ::link(existing, name);
}
inline int unlink(const char* path) {
    return ::unlink(path);
}
inline ssize_t readlink(const char* path, char* buffer, size_t size) {
    return ::readlink(path, buffer, size);
}
inline int statfs(const char* path, struct statfs* status) {
    return ::statfs(path, status);
}

inline DIR* opendir(const char* path) {
    return ::opendir(path);
}
inline dirent* readdir(DIR* directory) {
    return ::readdir(directory);
}
inline int closedir(DIR* directory) {
    return ::closedir(directory);
}

/// A view that is shared with other processes; MAP_FAILED when it fails.
inline void* mapShared(size_t length, int protection, int fd, off_t offset) {
    return ::mmap(nullptr, length, protection, MAP_SHARED, fd, offset);
}
inline int munmap(void* address, size_t length) {
    return ::munmap(address, length);
}

struct DirectoryCloser {
    void operator()(DIR* directory) const {
        const int error = errno;
        (void)sys::closedir(directory);  // it was only read
        errno = error;
    }
};
/// Owns an open directory; closing it keeps errno.
using UniqueDirectory = std::unique_ptr<DIR, DirectoryCloser>;

inline int kill(pid_t process, int signal) {
    return ::kill(process, signal);
}

inline int semget(key_t key, int count, int flags) {
    return ::semget(key, count, flags);
}
inline int semop(int set, struct sembuf* operation) {
    return retryInterrupted([&] { return ::semop(set, operation, 1); });
}
/// `argument` is the union that the system call takes.
template <class Argument>
int semctl(int set, int number, int command, Argument argument) {
    return ::semctl(set, number, command, argument);
}
inline int shmget(key_t key, size_t size, int flags) {
    return ::shmget(key, size, flags);
}
inline int shmctl(int region, int command, struct shmid_ds* status) {
    return ::shmctl(region, command, status);
}
/// Null when it fails.
inline void* shmat(int region) {
    void* address = ::shmat(region, nullptr, 0);
    return address == reinterpret_cast<void*>(-1) ? nullptr : address;
}

inline pid_t waitpid(pid_t process, int* status, int options) {
    return retryInterrupted([&] { return ::waitpid(process, status, options); });
}
inline int waitid(idtype_t which, id_t id, siginfo_t* information, int options) {
    return retryInterrupted([&] { return ::waitid(which, id, information, options); });
}
/// A descriptor that is readable once the process has ended.
inline int pidfdOpen(pid_t process) {
    return ::pidfd_open(process, 0);
}
inline int epollCreate() {
    return ::epoll_create1(EPOLL_CLOEXEC);
}
inline int epollControl(int epoll, int operation, int descriptor, epoll_event* event) {
    return ::epoll_ctl(epoll, operation, descriptor, event);
}
/// Those events that are there, without waiting for any.
inline int epollTake(int epoll, epoll_event* events, size_t count) {
    return ::epoll_wait(epoll, events, static_cast<int>(count), /*timeout=*/0);
}
/// Returns an error number.
inline int posixSpawn(pid_t* process, const char* program, const posix_spawnattr_t* attributes,
                      char* const* words) {
    return ::posix_spawn(process, program, /*actions=*/nullptr, attributes, words, environ);
}
/// Two ends, for reading and for writing.
inline int pipe(int (&ends)[2]) {
    return ::pipe2(ends, O_CLOEXEC);
}
/// A copy of the descriptor that is none of the first three.
inline int duplicateAboveStandard(int fd) {
    return ::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
}
/// The copy stays open when a program is executed.
inline int dup2(int fd, int copy) {
    return retryInterrupted([&] { return ::dup2(fd, copy); });
}
inline int closeRange(unsigned int first, unsigned int last) {
    return ::close_range(first, last, 0);
}
inline int chdir(const char* path) {
    return ::chdir(path);
}
/// Null when it fails.
inline char* getcwd(char* buffer, size_t size) {
    return ::getcwd(buffer, size);
}

/// The number by which the machine is known; 0 when it has none.
inline long gethostid() {
    return ::gethostid();
}

/// Random bytes, as many as the result says; -1 when the machine has not gathered any yet. Never waits.
inline ssize_t getrandom(void* buffer, size_t size) {
    return ::getrandom(buffer, size, GRND_NONBLOCK);
}

/// The wall clock.
inline timeval now() {
    timeval value{};
    (void)::gettimeofday(&value, nullptr);  // cannot fail with a valid pointer
    return value;
}
inline time_t wallSeconds() {
    return ::time(nullptr);
}
/// The clock that never steps, for durations.
inline timespec monotonic() {
    timespec value{};
    (void)::clock_gettime(CLOCK_MONOTONIC, &value);  // cannot fail with this clock
    return value;
}
/// The same, as it was at the last tick, some milliseconds ago: reading it takes a few nanoseconds.
inline timespec monotonicTick() {
    timespec value{};
    (void)::clock_gettime(CLOCK_MONOTONIC_COARSE, &value);  // cannot fail with this clock
    return value;
}
/// Ends early with -1 and EINTR when a signal handler ran; `remaining` then holds the rest.
inline int nanosleep(const timespec& duration, timespec* remaining) {
    return ::nanosleep(&duration, remaining);
}

/// Ends early with -1 and EINTR when a signal handler ran. A null `mask` leaves the signal mask as it is.
inline int ppoll(pollfd* polled, nfds_t count, const timespec* timeout, const sigset_t* mask) {
    return ::ppoll(polled, count, timeout, mask);
}

/// Sleeps while `word` holds `expected`, at most `timeout` (null: without limit). Returns 0, or an error
/// number: EAGAIN (another value), EINTR (a signal handler ran) or ETIMEDOUT. May return 0 for no reason.
inline int futexWait(std::atomic<std::int32_t>& word, std::int32_t expected, const timespec* timeout) {
    const long result = ::syscall(SYS_futex, &word, FUTEX_WAIT_PRIVATE, expected, timeout, nullptr, 0);
    return result == -1 ? errno : 0;
}
inline void futexWakeOne(std::atomic<std::int32_t>& word) {
    (void)::syscall(SYS_futex, &word, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr,
                    0);  // nobody there is no failure
}

/// Owns one descriptor.
class UniqueFd {
  public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) reset(other.release());
        return *this;
    }
    ~UniqueFd() { reset(); }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1) {
        if (fd_ >= 0) (void)sys::close(fd_);  // nothing to be done about it; writers sync and check before
        fd_ = fd;
    }

  private:
    int fd_ = -1;
};

/// Puts on the disk what was made or renamed in the directory. False with errno.
inline bool syncDirectory(const char* path) {
    const UniqueFd directory(sys::open(path, O_RDONLY | O_DIRECTORY));
    return directory && sys::fsync(directory.get()) == 0;
}

}  // namespace traiklofox::sys
