// What stands between the tested code and the C library: for each function x here that is defined as
// __wrap_x, the linker sends calls of x here and calls of __real_x to the library (tests/CMakeLists.txt reads
// the names from this file). Each asks the rules first. The names are those of a build with 64-bit file
// offsets.

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>

#include "support/fault_rules.h"

using traiklofox::test::faults::Call;
using traiklofox::test::faults::die;
using traiklofox::test::faults::judge;
using traiklofox::test::faults::Target;
using traiklofox::test::faults::Verdict;

namespace {

Target at(const char* path, const char* secondPath = nullptr) {
    return {.path = path, .secondPath = secondPath};
}
Target at(int fd) {
    return {.fd = fd};
}
constexpr Target kNowhere{};

/// The result `failure` with the error that a rule wants.
template <class Result>
Result failed(const Verdict& verdict, Result failure) {
    while (verdict.error == traiklofox::test::faults::kHangs) ::pause();
    errno = verdict.error;
    return failure;
}

template <class Result>
Result returned(const Verdict& verdict, Result result) {
    if (verdict.thenDies) die();
    return result;
}

/// Makes the real call, unless a rule says that it fails: a null pointer or -1 is then its result.
template <class Result, class... Parameters, class... Arguments>
Result pass(Call call, const Target& target, Result (*real)(Parameters...), Arguments... arguments) {
    const Verdict verdict = judge(call, target);
    if (!verdict.fails) return returned(verdict, real(arguments...));
    if constexpr (std::is_pointer_v<Result>)
        return failed<Result>(verdict, nullptr);
    else
        return failed<Result>(verdict, -1);
}

/// The same for what fails with another result, an error number for instance.
template <class Result, class... Parameters, class... Arguments>
Result passElse(Call call, const Target& target, Result failure, Result (*real)(Parameters...),
                Arguments... arguments) {
    const Verdict verdict = judge(call, target);
    return verdict.fails ? failed(verdict, failure) : returned(verdict, real(arguments...));
}

/// The same for a transfer, which a rule may also cut short.
template <class Data>
ssize_t transfer(Call call, ssize_t (*real)(int, Data*, size_t), int fd, Data* data, size_t size) {
    const Verdict verdict = judge(call, at(fd));
    if (verdict.fails) return failed<ssize_t>(verdict, -1);
    return returned(verdict, real(fd, data, std::min(size, verdict.transferAtMost)));
}

/// The same for what closes: a failure is reported when it is done.
template <class What>
int closing(Call call, int fd, int (*real)(What), What what) {
    const Verdict verdict = judge(call, at(fd));
    const int result = returned(verdict, real(what));
    return verdict.fails ? failed(verdict, -1) : result;
}

}  // namespace

// clang-format off
extern "C" {

using Stat = struct stat;
using Statx = struct statx;
using Entry = struct dirent;

int __real_open64(const char*, int, ...);
int __wrap_open64(const char* path, int flags, ...) {
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = (flags & (O_CREAT | __O_TMPFILE)) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    return pass(Call::Open, at(path), +[](const char* p, int f, mode_t m) { return __real_open64(p, f, m); }, path,
                flags, mode);
}
int __real_statx(int, const char*, int, unsigned int, Statx*);
int __wrap_statx(int fd, const char* path, int flags, unsigned int mask, Statx* status) {
    const bool isOfDescriptor = (flags & AT_EMPTY_PATH) != 0;
    const Call ofPath = (flags & AT_SYMLINK_NOFOLLOW) != 0 ? Call::Lstat : Call::Stat;
    return pass(isOfDescriptor ? Call::Fstat : ofPath, isOfDescriptor ? at(fd) : at(path), __real_statx, fd, path,
                flags, mask, status);
}
int __real_stat64(const char*, Stat*);
int __wrap_stat64(const char* path, Stat* status) { return pass(Call::Stat, at(path), __real_stat64, path, status); }
int __real_lstat64(const char*, Stat*);
int __wrap_lstat64(const char* path, Stat* status) {
    return pass(Call::Lstat, at(path), __real_lstat64, path, status);
}
decltype(access) __real_access;
int __wrap_access(const char* path, int mode) { return pass(Call::Access, at(path), __real_access, path, mode); }
decltype(chmod) __real_chmod;
int __wrap_chmod(const char* path, mode_t mode) { return pass(Call::Chmod, at(path), __real_chmod, path, mode); }
decltype(chown) __real_chown;
int __wrap_chown(const char* path, uid_t owner, gid_t group) {
    return pass(Call::Chown, at(path), __real_chown, path, owner, group);
}
decltype(mkdir) __real_mkdir;
int __wrap_mkdir(const char* path, mode_t mode) { return pass(Call::Mkdir, at(path), __real_mkdir, path, mode); }
decltype(rmdir) __real_rmdir;
int __wrap_rmdir(const char* path) { return pass(Call::Rmdir, at(path), __real_rmdir, path); }
decltype(rename) __real_rename;
int __wrap_rename(const char* from, const char* to) {
    return pass(Call::Rename, at(from, to), __real_rename, from, to);
}
decltype(renameat2) __real_renameat2;
int __wrap_renameat2(int fromDirectory, const char* from, int toDirectory, const char* to, unsigned int flags) {
    return pass(Call::Rename, at(from, to), __real_renameat2, fromDirectory, from, toDirectory, to, flags);
}
decltype(link) __real_link;
int __wrap_link(const char* existing, const char* name) {
    return pass(Call::Link, at(existing, name), __real_link, existing, name);
}
decltype(unlink) __real_unlink;
int __wrap_unlink(const char* path) { return pass(Call::Unlink, at(path), __real_unlink, path); }
decltype(readlink) __real_readlink;
ssize_t __wrap_readlink(const char* path, char* to, size_t size) {
    return pass(Call::Readlink, at(path), __real_readlink, path, to, size);
}
decltype(opendir) __real_opendir;
DIR* __wrap_opendir(const char* path) { return pass(Call::Opendir, at(path), __real_opendir, path); }
decltype(chdir) __real_chdir;
int __wrap_chdir(const char* path) { return pass(Call::Chdir, at(path), __real_chdir, path); }

decltype(close) __real_close;
int __wrap_close(int fd) { return closing(Call::Close, fd, __real_close, fd); }
decltype(read) __real_read;
ssize_t __wrap_read(int fd, void* buffer, size_t size) { return transfer(Call::Read, __real_read, fd, buffer, size); }
decltype(write) __real_write;
ssize_t __wrap_write(int fd, const void* data, size_t size) {
    return transfer(Call::Write, __real_write, fd, data, size);
}
off_t __real_lseek64(int, off_t, int);
off_t __wrap_lseek64(int fd, off_t offset, int whence) {
    return pass(Call::Lseek, at(fd), __real_lseek64, fd, offset, whence);
}
int __real_ftruncate64(int, off_t);
int __wrap_ftruncate64(int fd, off_t size) { return pass(Call::Ftruncate, at(fd), __real_ftruncate64, fd, size); }
decltype(fdatasync) __real_fdatasync;
int __wrap_fdatasync(int fd) { return pass(Call::Fdatasync, at(fd), __real_fdatasync, fd); }
decltype(fsync) __real_fsync;
int __wrap_fsync(int fd) { return pass(Call::Fsync, at(fd), __real_fsync, fd); }
int __real_lockf64(int, int, off_t);
int __wrap_lockf64(int fd, int command, off_t length) {
    return pass(Call::Lockf, at(fd), __real_lockf64, fd, command, length);
}
decltype(flock) __real_flock;
int __wrap_flock(int fd, int operation) { return pass(Call::Flock, at(fd), __real_flock, fd, operation); }
int __real_fstat64(int, Stat*);
int __wrap_fstat64(int fd, Stat* status) { return pass(Call::Fstat, at(fd), __real_fstat64, fd, status); }
decltype(fchmod) __real_fchmod;
int __wrap_fchmod(int fd, mode_t mode) { return pass(Call::Fchmod, at(fd), __real_fchmod, fd, mode); }
decltype(fchown) __real_fchown;
int __wrap_fchown(int fd, uid_t owner, gid_t group) {
    return pass(Call::Fchown, at(fd), __real_fchown, fd, owner, group);
}
Entry* __real_readdir64(DIR*);
Entry* __wrap_readdir64(DIR* directory) {
    return pass(Call::Readdir, at(::dirfd(directory)), __real_readdir64, directory);
}
decltype(closedir) __real_closedir;
int __wrap_closedir(DIR* directory) {
    return closing(Call::Closedir, ::dirfd(directory), __real_closedir, directory);
}
void* __real_mmap64(void*, size_t, int, int, int, off_t);
void* __wrap_mmap64(void* address, size_t size, int protection, int flags, int fd, off_t offset) {
    return passElse(Call::Mmap, at(fd), MAP_FAILED, __real_mmap64, address, size, protection, flags, fd, offset);
}

decltype(semget) __real_semget;
int __wrap_semget(key_t key, int count, int flags) {
    return pass(Call::Semget, kNowhere, __real_semget, key, count, flags);
}
decltype(semop) __real_semop;
int __wrap_semop(int set, struct sembuf* operations, size_t count) {
    return pass(Call::Semop, kNowhere, __real_semop, set, operations, count);
}
int __real_semctl(int, int, int, ...);
int __wrap_semctl(int set, int number, int command, ...) {
    va_list rest;
    va_start(rest, command);
    void* argument = va_arg(rest, void*);  // the union that semctl takes is as wide as a pointer
    va_end(rest);
    return pass(Call::Semctl, kNowhere, +[](int s, int n, int c, void* a) { return __real_semctl(s, n, c, a); }, set,
                number, command, argument);
}
decltype(shmget) __real_shmget;
int __wrap_shmget(key_t key, size_t size, int flags) {
    return pass(Call::Shmget, kNowhere, __real_shmget, key, size, flags);
}
decltype(shmctl) __real_shmctl;
int __wrap_shmctl(int region, int command, struct shmid_ds* status) {
    return pass(Call::Shmctl, kNowhere, __real_shmctl, region, command, status);
}
decltype(shmat) __real_shmat;
void* __wrap_shmat(int region, const void* address, int flags) {
    return passElse(Call::Shmat, kNowhere, MAP_FAILED, __real_shmat, region, address, flags);
}
decltype(munmap) __real_munmap;
int __wrap_munmap(void* address, size_t size) { return pass(Call::Munmap, kNowhere, __real_munmap, address, size); }
decltype(malloc) __real_malloc;
void* __wrap_malloc(size_t size) { return pass(Call::Malloc, kNowhere, __real_malloc, size); }
decltype(pthread_create) __real_pthread_create;
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*), void* argument) {
    const Verdict verdict = judge(Call::PthreadCreate, kNowhere);
    return verdict.fails ? verdict.error : returned(verdict, __real_pthread_create(thread, attributes, body, argument));
}
decltype(fork) __real_fork;
pid_t __wrap_fork() { return pass(Call::Fork, kNowhere, __real_fork); }
decltype(pipe2) __real_pipe2;
int __wrap_pipe2(int* ends, int flags) { return pass(Call::Pipe2, kNowhere, __real_pipe2, ends, flags); }
decltype(kill) __real_kill;
int __wrap_kill(pid_t pid, int signal) { return pass(Call::Kill, kNowhere, __real_kill, pid, signal); }
decltype(nanosleep) __real_nanosleep;
int __wrap_nanosleep(const timespec* duration, timespec* left) {
    return pass(Call::Nanosleep, kNowhere, __real_nanosleep, duration, left);
}
decltype(getrandom) __real_getrandom;
ssize_t __wrap_getrandom(void* buffer, size_t size, unsigned int flags) {
    return pass(Call::Getrandom, kNowhere, __real_getrandom, buffer, size, flags);
}
int __real_pidfd_open(pid_t, unsigned int);
int __wrap_pidfd_open(pid_t pid, unsigned int flags) {
    return pass(Call::PidfdOpen, kNowhere, __real_pidfd_open, pid, flags);
}
decltype(posix_spawn) __real_posix_spawn;
int __wrap_posix_spawn(pid_t* pid, const char* path, const posix_spawn_file_actions_t* actions,
                       const posix_spawnattr_t* attributes, char* const* words, char* const* environment) {
    const Verdict verdict = judge(Call::PosixSpawn, at(path));
    return verdict.fails ? verdict.error : __real_posix_spawn(pid, path, actions, attributes, words, environment);
}
decltype(close_range) __real_close_range;
int __wrap_close_range(unsigned int first, unsigned int last, int flags) {
    return pass(Call::CloseRange, kNowhere, __real_close_range, first, last, flags);
}
decltype(gethostid) __real_gethostid;
long __wrap_gethostid() { return passElse(Call::Gethostid, kNowhere, 0L, __real_gethostid); }

decltype(clock_gettime) __real_clock_gettime;
int __wrap_clock_gettime(clockid_t clock, timespec* result) {
    const int status = __real_clock_gettime(clock, result);
    if (status == 0 && clock == CLOCK_REALTIME) *result = traiklofox::test::faults::fakeWallClock(*result);
    if (status == 0 && clock == CLOCK_MONOTONIC) *result = traiklofox::test::faults::fakeMonotonic(*result);
    return status;
}
int __wrap_gettimeofday(timeval* result, void*) {
    timespec now{};
    (void)__wrap_clock_gettime(CLOCK_REALTIME, &now);  // cannot fail with this clock
    *result = {.tv_sec = now.tv_sec, .tv_usec = now.tv_nsec / 1000};
    return 0;
}
time_t __wrap_time(time_t* result) {
    timespec now{};
    (void)__wrap_clock_gettime(CLOCK_REALTIME, &now);
    if (result != nullptr) *result = now.tv_sec;
    return now.tv_sec;
}

}  // extern "C"
// clang-format on
