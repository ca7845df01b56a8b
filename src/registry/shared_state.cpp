#include "registry/shared_state.h"

#include <traiklofox/clocks.h>
#include <traiklofox/process.h>

#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <string>

#include "foundation/sys.h"
#include "registry/cache_lock.h"

namespace traiklofox::registry {

namespace {

constexpr int kProjectId = 1;
constexpr int kSemaphoreMode = 0660;
constexpr int kPageMode = 0666;
constexpr int kCreatorRounds = 10;
constexpr DWORD kCreatorRoundMs = 250;

constexpr sembuf kSemLock{.sem_num = 0, .sem_op = -1, .sem_flg = SEM_UNDO};
constexpr sembuf kSemUnlock{.sem_num = 0, .sem_op = +1, .sem_flg = SEM_UNDO};

constinit std::atomic<int> RegSemId{-1};
constinit std::atomic<SharedPage*> page{nullptr};

union SemaphoreArgument {
    int value;
    semid_ds* status;
};

int controlSemaphore(int set, int command, SemaphoreArgument argument) {
    return sys::semctl(set, 0, command, argument);
}

int semaphoreOperation(int set, sembuf operation) {
    return sys::semop(set, &operation);
}

void reportFailure(const char* call, const char* object) {
    std::fprintf(stderr, "Error: performing %s on Tarnwell Registry %s:%s\n", call, object,
                 std::strerror(errno));
}

[[noreturn]] void abortOver(const char* call, const char* object) {
    reportFailure(call, object);
    std::abort();
}

/// Makes the lock file, and its directory, when they are missing and the process may.
void makeLockFile() {
    const std::string path = TRAIKLOFOX_LOCK_FILE;
    (void)sys::mkdir(path.substr(0, path.rfind('/')).c_str(), 0755);  // present, or the open below tells
    const sys::UniqueFd made(sys::open(path.c_str(), O_RDONLY | O_CREAT | O_EXCL, 0644));
    if (made) (void)sys::fchown(made.get(), KzUserId, KzGroupId);  // only root may; anybody may use the file
}

/// The lock file, open; none when it is missing. Never replaced: its inode is the key.
sys::UniqueFd openLockFile(bool create) {
    sys::UniqueFd file(sys::open(TRAIKLOFOX_LOCK_FILE, O_RDONLY));
    if (!file && create && errno == ENOENT) {
        makeLockFile();
        file.reset(sys::open(TRAIKLOFOX_LOCK_FILE, O_RDONLY));
    }
    if (!file) {
        static constinit std::atomic<bool> reported{false};
        if (!reported.exchange(true))
            std::fprintf(stderr, "RegInitSharedState: lock file %s: %s; going on without it\n",
                         TRAIKLOFOX_LOCK_FILE, std::strerror(errno));
    }
    return file;
}

bool hasBeenOperatedOn(int set) {
    semid_ds status{};
    return controlSemaphore(set, IPC_STAT, {.status = &status}) == 0 && status.sem_otime != 0;
}

/// Gives a semaphore its value and owner, and operates on it once, which tells others that it is ready.
void setUpSemaphore(int set) {
    semid_ds status{};
    (void)controlSemaphore(set, IPC_STAT, {.status = &status});  // for the fields that are not set here
    status.sem_perm.uid = KzUserId;
    status.sem_perm.gid = KzGroupId;
    status.sem_perm.mode = kSemaphoreMode;
    if (controlSemaphore(set, SETVAL, {.value = 1}) == -1) abortOver("semctl()", "semaphore");
    (void)controlSemaphore(set, IPC_SET, {.status = &status});  // only root may give it away
    if (semaphoreOperation(set, kSemLock) == -1 || semaphoreOperation(set, kSemUnlock) == -1)
        abortOver("semop()", "semaphore");
}

/// Waits until the semaphore's creator has finished. One that died half way is stood in for by whoever holds
/// the lock file locked, since no creator can then be at work.
void awaitCreator(int set, bool lockFileHeld) {
    for (int round = 0; round < kCreatorRounds; ++round) {
        if (hasBeenOperatedOn(set)) return;
        SleepEx(kCreatorRoundMs, FALSE);
    }
    if (hasBeenOperatedOn(set)) return;
    if (!lockFileHeld) {
        errno = ETIMEDOUT;
        abortOver("semget()", "semaphore");
    }
    setUpSemaphore(set);
}

int createSemaphore(key_t key, bool lockFileHeld) {
    const int made = sys::semget(key, 1, IPC_CREAT | IPC_EXCL | kSemaphoreMode);
    if (made != -1) {
        setUpSemaphore(made);
        return made;
    }
    if (errno != EEXIST) abortOver("semget()", "semaphore");
    const int present = sys::semget(key, 1, kSemaphoreMode);
    if (present == -1) {
        reportFailure("semget()", "semaphore");
        _exit(1);
    }
    awaitCreator(present, lockFileHeld);
    return present;
}

int findSemaphore(key_t key, bool lockFileHeld) {
    const int present = sys::semget(key, 1, kSemaphoreMode);
    if (present != -1) {
        awaitCreator(present, lockFileHeld);
        return present;
    }
    std::fputs("Registry semaphore doesn't exist. Exiting.\n", stderr);
    ExitProcess(1);
}

/// A page that is made here is all zeroes: the kernel has cleared it, and another process may have counted
/// already.
SharedPage* attachPage(key_t key) {
    const auto size = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    int region = sys::shmget(key, size, IPC_CREAT | IPC_EXCL | kPageMode);
    if (region != -1) {
        shmid_ds status{};
        (void)sys::shmctl(region, IPC_STAT, &status);
        status.shm_perm.uid = KzUserId;
        status.shm_perm.gid = KzGroupId;
        status.shm_perm.mode = kPageMode;
        (void)sys::shmctl(region, IPC_SET, &status);  // only root may give it away
    } else if (errno == EEXIST) {
        region = sys::shmget(key, size, kPageMode);
    }
    if (region == -1) abortOver("shmget()", "shared memory");

    void* address = sys::shmat(region);
    if (address == nullptr) {
        std::fputs("Error: shmat(): Unable to access the Tarnwell Registry\n  shared memory region\n",
                   stderr);
        std::abort();
    }
    return static_cast<SharedPage*>(address);
}

}  // namespace

SharedPage* ShmStruct() {
    return page.load(std::memory_order_acquire);
}

void takeSemaphore() {
    while (semaphoreOperation(RegSemId.load(std::memory_order_acquire), kSemLock) == -1) {
        if (errno != EIDRM && errno != EINVAL) abortOver("semop()", "semaphore");
        RegInitSharedState(/*create=*/true);
        noteTreeOutOfDate();
    }
    SharedPage& shared = *ShmStruct();
    // A holder that died may have put a file in place without counting it: then everybody is to read again.
    if (shared.lockHolder.exchange(static_cast<std::uint32_t>(getpid()), std::memory_order_seq_cst) != 0)
        shared.stamp.fetch_add(1, std::memory_order_seq_cst);
}

void giveSemaphore() {
    ShmStruct()->lockHolder.store(0, std::memory_order_seq_cst);
    const bool given = semaphoreOperation(RegSemId.load(std::memory_order_acquire), kSemUnlock) == 0;
    // Removed: the next lock sees to it. Otherwise it is kept, which would block everybody, this process included.
    if (!given && errno != EIDRM && errno != EINVAL) abortOver("semop()", "semaphore");
}

}  // namespace traiklofox::registry

using namespace traiklofox::registry;

void RegInitSharedState(bool create) {
    const traiklofox::sys::UniqueFd lockFile = openLockFile(create);
    // Creators take turns, so that one that finds a semaphore half made knows its maker for dead.
    const bool held = lockFile && traiklofox::sys::flock(lockFile.get(), LOCK_EX) == 0;
    const key_t key = ftok(TRAIKLOFOX_LOCK_FILE, kProjectId);
    RegSemId.store(create ? createSemaphore(key, held) : findSemaphore(key, held), std::memory_order_release);
    // A page attached before is kept: a look-up in another thread may be reading it.
    page.store(attachPage(key), std::memory_order_release);
}

void RegBumpVersion() {
    ensureStarted();
    const FileLockGuard guard;
    SharedPage& shared = *ShmStruct();
    shared.stamp.fetch_add(1, std::memory_order_seq_cst);
    shared.lastWriter.store(static_cast<std::uint32_t>(getpid()), std::memory_order_relaxed);
}

void RegGetVersion(LPDWORD lockOwner, LPDWORD stamp, LPDWORD lastWriter) {
    ensureStarted();
    const SharedPage& shared = *ShmStruct();
    if (lockOwner != nullptr) *lockOwner = shared.lockHolder.load();
    if (stamp != nullptr) *stamp = shared.stamp.load();
    if (lastWriter != nullptr) *lastWriter = shared.lastWriter.load();
}

void RegDumpVersion() {
    DWORD lockOwner = 0;
    DWORD stamp = 0;
    DWORD lastWriter = 0;
    RegGetVersion(&lockOwner, &stamp, &lastWriter);
    std::printf("Lock owner PID: %lu\nRegistry version stamp: %lu\nLast PID to write Registry: %lu\n",
                static_cast<unsigned long>(lockOwner), static_cast<unsigned long>(stamp),
                static_cast<unsigned long>(lastWriter));
}
