// What stands between the tested code and the C library: for each function x here that is defined as
// __wrap_x, the linker sends calls of x here and calls of __real_x to the library (tests/CMakeLists.txt reads
// the names from this file). Each asks the rules first. The names are those of a build with 64-bit file
// offsets.

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>

#include "support/fault_rules.h"

using traiklofox::test::faults::Call;
using traiklofox::test::faults::die;
using traiklofox::test::faults::judge;
using traiklofox::test::faults::Target;

namespace {

Target at(const char* path, const char* secondPath = nullptr) {
    return {.path = path, .secondPath = secondPath};
}
Target at(int fd) {
    return {.fd = fd};
}
Target at(FILE* stream) {
    return {.fd = ::fileno(stream)};
}
constexpr Target kNowhere{};

/// Makes the real call, unless a rule says that it fails; `failure` is then its result.
template <class Real, class Result = decltype(std::declval<Real>()())>
Result pass(Call call, const Target& target, Real real, Result failure) {
    const auto verdict = judge(call, target);
    if (verdict.fails) {
        while (verdict.error == traiklofox::test::faults::kHangs) ::pause();
        errno = verdict.error;
        return failure;
    }
    const Result result = real();
    if (verdict.thenDies) die();
    return result;
}
template <class Real>
auto pass(Call call, const Target& target, Real real) {
    return pass(call, target, real, static_cast<decltype(real())>(-1));
}

/// The same for a transfer, which a rule may also cut short.
template <class Real>
ssize_t transfer(Call call, int fd, size_t size, Real real) {
    const auto verdict = judge(call, at(fd));
    if (verdict.fails) {
        errno = verdict.error;
        return -1;
    }
    const ssize_t result = real(std::min(size, verdict.transferAtMost));
    if (verdict.thenDies) die();
    return result;
}

/// The same for what closes: a failure is reported when it is done.
template <class Real>
int closing(Call call, const Target& target, Real real) {
    const auto verdict = judge(call, target);
    const int result = real();
    if (verdict.thenDies) die();
    if (!verdict.fails) return result;
    errno = verdict.error;
    return -1;
}

}  // namespace

// clang-format off
extern "C" {

int __real_open64(const char*, int, ...);
int __real_stat64(const char*, struct stat*);
int __real_lstat64(const char*, struct stat*);
int __real_statx(int, const char*, int, unsigned int, struct statx*);
int __real_statfs64(const char*, struct statfs*);
int __real_access(const char*, int);
int __real_chmod(const char*, mode_t);
int __real_chown(const char*, uid_t, gid_t);
int __real_mkdir(const char*, mode_t);
int __real_rmdir(const char*);
int __real_rename(const char*, const char*);
int __real_renameat2(int, const char*, int, const char*, unsigned int);
int __real_link(const char*, const char*);
int __real_unlink(const char*);
ssize_t __real_readlink(const char*, char*, size_t);
DIR* __real_opendir(const char*);
FILE* __real_fopen64(const char*, const char*);

int __wrap_open64(const char* path, int flags, ...) {
    mode_t mode = 0;
    if ((flags & (O_CREAT | __O_TMPFILE)) != 0) {
        va_list rest;
        va_start(rest, flags);
        mode = va_arg(rest, mode_t);
        va_end(rest);
    }
    return pass(Call::Open, at(path), [&] { return __real_open64(path, flags, mode); });
}
int __wrap_stat64(const char* path, struct stat* status) {
    return pass(Call::Stat, at(path), [&] { return __real_stat64(path, status); });
}
int __wrap_lstat64(const char* path, struct stat* status) {
    return pass(Call::Lstat, at(path), [&] { return __real_lstat64(path, status); });
}
int __wrap_statx(int fd, const char* path, int flags, unsigned int mask, struct statx* status) {
    const bool isOfDescriptor = (flags & AT_EMPTY_PATH) != 0;
    const Call ofPath = (flags & AT_SYMLINK_NOFOLLOW) != 0 ? Call::Lstat : Call::Stat;
    return pass(isOfDescriptor ? Call::Fstat : ofPath, isOfDescriptor ? at(fd) : at(path),
                [&] { return __real_statx(fd, path, flags, mask, status); });
}
int __wrap_statfs64(const char* path, struct statfs* status) {
    return pass(Call::Statfs, at(path), [&] { return __real_statfs64(path, status); });
}
int __wrap_access(const char* path, int mode) {
    return pass(Call::Access, at(path), [&] { return __real_access(path, mode); });
}
int __wrap_chmod(const char* path, mode_t mode) {
    return pass(Call::Chmod, at(path), [&] { return __real_chmod(path, mode); });
}
int __wrap_chown(const char* path, uid_t owner, gid_t group) {
    return pass(Call::Chown, at(path), [&] { return __real_chown(path, owner, group); });
}
int __wrap_mkdir(const char* path, mode_t mode) {
    return pass(Call::Mkdir, at(path), [&] { return __real_mkdir(path, mode); });
}
int __wrap_rmdir(const char* path) {
    return pass(Call::Rmdir, at(path), [&] { return __real_rmdir(path); });
}
int __wrap_rename(const char* from, const char* to) {
    return pass(Call::Rename, at(from, to), [&] { return __real_rename(from, to); });
}
int __wrap_renameat2(int fromDirectory, const char* from, int toDirectory, const char* to, unsigned int flags) {
    return pass(Call::Rename, at(from, to),
                [&] { return __real_renameat2(fromDirectory, from, toDirectory, to, flags); });
}
int __wrap_link(const char* existing, const char* name) {
    return pass(Call::Link, at(existing, name), [&] { return __real_link(existing, name); });
}
int __wrap_unlink(const char* path) {
    return pass(Call::Unlink, at(path), [&] { return __real_unlink(path); });
}
ssize_t __wrap_readlink(const char* path, char* buffer, size_t size) {
    return pass(Call::Readlink, at(path), [&] { return __real_readlink(path, buffer, size); });
}
DIR* __wrap_opendir(const char* path) {
    return pass(Call::Opendir, at(path), [&] { return __real_opendir(path); }, static_cast<DIR*>(nullptr));
}
FILE* __wrap_fopen64(const char* path, const char* mode) {
    return pass(Call::Fopen, at(path), [&] { return __real_fopen64(path, mode); },
                static_cast<FILE*>(nullptr));
}

int __real_chdir(const char*);
int __wrap_chdir(const char* path) {
    return pass(Call::Chdir, at(path), [&] { return __real_chdir(path); });
}

int __real_close(int);
ssize_t __real_read(int, void*, size_t);
ssize_t __real_write(int, const void*, size_t);
off_t __real_lseek64(int, off_t, int);
int __real_ftruncate64(int, off_t);
int __real_fdatasync(int);
int __real_fsync(int);
int __real_lockf64(int, int, off_t);
int __real_flock(int, int);
int __real_fcntl64(int, int, ...);
int __real_fstat64(int, struct stat*);
int __real_fchmod(int, mode_t);
int __real_fchown(int, uid_t, gid_t);
struct dirent* __real_readdir64(DIR*);
int __real_closedir(DIR*);
void* __real_mmap64(void*, size_t, int, int, int, off_t);
FILE* __real_fdopen(int, const char*);
size_t __real_fwrite(const void*, size_t, size_t, FILE*);
int __real_fputs(const char*, FILE*);
char* __real_fgets(char*, int, FILE*);
int __real_fflush(FILE*);
int __real_fclose(FILE*);

int __wrap_close(int fd) {
    return closing(Call::Close, at(fd), [&] { return __real_close(fd); });
}
ssize_t __wrap_read(int fd, void* buffer, size_t size) {
    return transfer(Call::Read, fd, size, [&](size_t most) { return __real_read(fd, buffer, most); });
}
ssize_t __wrap_write(int fd, const void* data, size_t size) {
    return transfer(Call::Write, fd, size, [&](size_t most) { return __real_write(fd, data, most); });
}
off_t __wrap_lseek64(int fd, off_t offset, int whence) {
    return pass(Call::Lseek, at(fd), [&] { return __real_lseek64(fd, offset, whence); });
}
int __wrap_ftruncate64(int fd, off_t size) {
    return pass(Call::Ftruncate, at(fd), [&] { return __real_ftruncate64(fd, size); });
}
int __wrap_fdatasync(int fd) {
    return pass(Call::Fdatasync, at(fd), [&] { return __real_fdatasync(fd); });
}
int __wrap_fsync(int fd) {
    return pass(Call::Fsync, at(fd), [&] { return __real_fsync(fd); });
}
int __wrap_lockf64(int fd, int command, off_t length) {
    return pass(Call::Lockf, at(fd), [&] { return __real_lockf64(fd, command, length); });
}
int __wrap_flock(int fd, int operation) {
    return pass(Call::Flock, at(fd), [&] { return __real_flock(fd, operation); });
}
int __wrap_fcntl64(int fd, int command, ...) {
    va_list rest;
    va_start(rest, command);
    void* argument = va_arg(rest, void*);  // as wide as every argument that fcntl takes
    va_end(rest);
    return pass(Call::Fcntl, at(fd), [&] { return __real_fcntl64(fd, command, argument); });
}
int __wrap_fstat64(int fd, struct stat* status) {
    return pass(Call::Fstat, at(fd), [&] { return __real_fstat64(fd, status); });
}
int __wrap_fchmod(int fd, mode_t mode) {
    return pass(Call::Fchmod, at(fd), [&] { return __real_fchmod(fd, mode); });
}
int __wrap_fchown(int fd, uid_t owner, gid_t group) {
    return pass(Call::Fchown, at(fd), [&] { return __real_fchown(fd, owner, group); });
}
struct dirent* __wrap_readdir64(DIR* directory) {
    return pass(Call::Readdir, at(::dirfd(directory)), [&] { return __real_readdir64(directory); },
                static_cast<struct dirent*>(nullptr));
}
int __wrap_closedir(DIR* directory) {
    return closing(Call::Closedir, at(::dirfd(directory)), [&] { return __real_closedir(directory); });
}
void* __wrap_mmap64(void* address, size_t size, int protection, int flags, int fd, off_t offset) {
    const auto map = [&] { return __real_mmap64(address, size, protection, flags, fd, offset); };
    return pass(Call::Mmap, at(fd), map, MAP_FAILED);
}
FILE* __wrap_fdopen(int fd, const char* mode) {
    return pass(Call::Fdopen, at(fd), [&] { return __real_fdopen(fd, mode); }, static_cast<FILE*>(nullptr));
}
size_t __wrap_fwrite(const void* data, size_t size, size_t count, FILE* stream) {
    return pass(Call::Fwrite, at(stream), [&] { return __real_fwrite(data, size, count, stream); },
                size_t{0});
}
int __wrap_fputs(const char* text, FILE* stream) {
    return pass(Call::Fputs, at(stream), [&] { return __real_fputs(text, stream); }, EOF);
}
char* __wrap_fgets(char* buffer, int size, FILE* stream) {
    return pass(Call::Fgets, at(stream), [&] { return __real_fgets(buffer, size, stream); },
                static_cast<char*>(nullptr));
}
int __wrap_fflush(FILE* stream) {
    const Target target = stream != nullptr ? at(stream) : kNowhere;
    return pass(Call::Fflush, target, [&] { return __real_fflush(stream); }, EOF);
}
int __wrap_fclose(FILE* stream) {
    return closing(Call::Fclose, at(stream), [&] { return __real_fclose(stream); });
}

int __real_semget(key_t, int, int);
int __real_semop(int, struct sembuf*, size_t);
int __real_semctl(int, int, int, ...);
int __real_shmget(key_t, size_t, int);
int __real_shmctl(int, int, struct shmid_ds*);
void* __real_shmat(int, const void*, int);
int __real_munmap(void*, size_t);
void* __real_malloc(size_t);
int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
pid_t __real_fork();
int __real_pipe2(int*, int);
pid_t __real_waitpid(pid_t, int*, int);
int __real_kill(pid_t, int);
int __real_nanosleep(const struct timespec*, struct timespec*);
ssize_t __real_getrandom(void*, size_t, unsigned int);

int __wrap_semget(key_t key, int count, int flags) {
    return pass(Call::Semget, kNowhere, [&] { return __real_semget(key, count, flags); });
}
int __wrap_semop(int set, struct sembuf* operations, size_t count) {
    return pass(Call::Semop, kNowhere, [&] { return __real_semop(set, operations, count); });
}
int __wrap_semctl(int set, int number, int command, ...) {
    va_list rest;
    va_start(rest, command);
    void* argument = va_arg(rest, void*);  // the union that semctl takes is as wide as a pointer
    va_end(rest);
    return pass(Call::Semctl, kNowhere, [&] { return __real_semctl(set, number, command, argument); });
}
int __wrap_shmget(key_t key, size_t size, int flags) {
    return pass(Call::Shmget, kNowhere, [&] { return __real_shmget(key, size, flags); });
}
int __wrap_shmctl(int region, int command, struct shmid_ds* status) {
    return pass(Call::Shmctl, kNowhere, [&] { return __real_shmctl(region, command, status); });
}
void* __wrap_shmat(int region, const void* address, int flags) {
    return pass(Call::Shmat, kNowhere, [&] { return __real_shmat(region, address, flags); },
                reinterpret_cast<void*>(-1));
}
int __wrap_munmap(void* address, size_t size) {
    return pass(Call::Munmap, kNowhere, [&] { return __real_munmap(address, size); });
}
void* __wrap_malloc(size_t size) {
    return pass(Call::Malloc, kNowhere, [&] { return __real_malloc(size); }, static_cast<void*>(nullptr));
}
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                          void* argument) {
    const auto verdict = judge(Call::PthreadCreate, kNowhere);
    const int error = verdict.fails ? verdict.error : __real_pthread_create(thread, attributes, body, argument);
    if (verdict.thenDies) die();
    return error;
}
pid_t __wrap_fork() {
    return pass(Call::Fork, kNowhere, [&] { return __real_fork(); });
}
int __wrap_pipe2(int* ends, int flags) {
    return pass(Call::Pipe2, kNowhere, [&] { return __real_pipe2(ends, flags); });
}
pid_t __wrap_waitpid(pid_t pid, int* status, int options) {
    return pass(Call::Waitpid, kNowhere, [&] { return __real_waitpid(pid, status, options); });
}
int __wrap_kill(pid_t pid, int signal) {
    return pass(Call::Kill, kNowhere, [&] { return __real_kill(pid, signal); });
}
int __wrap_nanosleep(const struct timespec* duration, struct timespec* remaining) {
    return pass(Call::Nanosleep, kNowhere, [&] { return __real_nanosleep(duration, remaining); });
}

ssize_t __wrap_getrandom(void* buffer, size_t size, unsigned int flags) {
    return pass(Call::Getrandom, kNowhere, [&] { return __real_getrandom(buffer, size, flags); });
}

int __real_pidfd_open(pid_t, unsigned int);
int __real_posix_spawn(pid_t*, const char*, const posix_spawn_file_actions_t*, const posix_spawnattr_t*, char* const*,
                       char* const*);
int __real_close_range(unsigned int, unsigned int, int);

int __wrap_pidfd_open(pid_t pid, unsigned int flags) {
    return pass(Call::PidfdOpen, kNowhere, [&] { return __real_pidfd_open(pid, flags); });
}
int __wrap_posix_spawn(pid_t* pid, const char* path, const posix_spawn_file_actions_t* actions,
                       const posix_spawnattr_t* attributes, char* const* words, char* const* environment) {
    const auto verdict = judge(Call::PosixSpawn, at(path));
    return verdict.fails ? verdict.error : __real_posix_spawn(pid, path, actions, attributes, words, environment);
}
int __wrap_close_range(unsigned int first, unsigned int last, int flags) {
    return pass(Call::CloseRange, kNowhere, [&] { return __real_close_range(first, last, flags); });
}

long __real_gethostid();
long __wrap_gethostid() {
    return pass(Call::Gethostid, kNowhere, [&] { return __real_gethostid(); }, 0L);
}

int __real_clock_gettime(clockid_t, struct timespec*);

int __wrap_clock_gettime(clockid_t clock, struct timespec* result) {
    const int status = __real_clock_gettime(clock, result);
    if (status == 0 && clock == CLOCK_REALTIME) *result = traiklofox::test::faults::fakeWallClock(*result);
    return status;
}
int __wrap_gettimeofday(struct timeval* result, void*) {
    struct timespec now{};
    (void)__wrap_clock_gettime(CLOCK_REALTIME, &now);  // cannot fail with this clock
    result->tv_sec = now.tv_sec;
    result->tv_usec = now.tv_nsec / 1000;
    return 0;
}
time_t __wrap_time(time_t* result) {
    struct timespec now{};
    (void)__wrap_clock_gettime(CLOCK_REALTIME, &now);
    if (result != nullptr) *result = now.tv_sec;
    return now.tv_sec;
}

}  // extern "C"
// clang-format on
