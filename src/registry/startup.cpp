// startup.cpp: brings the registry up in this process, and keeps it whole around a fork.

#include "registry/startup.h"

#include <traiklofox/clocks.h>
#include <traiklofox/diagnostics.h>
#include <traiklofox/registry.h>
#include <traiklofox/temp_name.h>

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include "foundation/on_exit.h"
#include "foundation/sys.h"
#include "registry/backup.h"
#include "registry/cache_lock.h"
#include "registry/file_owner.h"
#include "registry/fork_guard.h"
#include "registry/locations.h"
#include "registry/open_keys.h"
#include "registry/registry_reader.h"
#include "registry/registry_writer.h"

constinit uid_t KzUserId = 0;
constinit gid_t KzGroupId = 0;
constinit mode_t KzFileMode = 0600;
constinit LONG lRegReady = 0;
constinit int bRegInitialized = 0;

namespace traiklofox::registry {

namespace {

constexpr DWORD kStartPollMs = 1000;
constexpr DWORD kForkPollMs = 10;
constexpr DWORD kCopyRetryMs = 100;
constexpr int kCopyAttempts = 11;

[[noreturn]] void endProcess() {
    std::fflush(stderr);
    _exit(1);
}

bool isStarted() {
    return std::atomic_ref(bRegInitialized).load(std::memory_order_acquire) != 0;
}

void noteStarted() {
    std::atomic_ref(bRegInitialized).store(1, std::memory_order_release);
}

void checkAccess() {
    const CKZString directory = registryDirectory();
    const CKZString path = registryPath();
    const bool usable = sys::access(directory.c_str(), W_OK) == 0 &&
                        (sys::access(path.c_str(), F_OK) != 0 || sys::access(path.c_str(), W_OK) == 0);
    if (usable) return;
    const int error = errno;
    std::fprintf(stderr, "InitRegistry:  problem accessing %s or %s, errno: %d/%s\n", directory.c_str(),
                 path.c_str(), error, std::strerror(error));
    endProcess();
}

void recordTemplateOwner() {
    struct statx status;
    if (sys::stat(templatePath().c_str(), &status) != 0) {
        unix_err("\n\nInitRegistry: stat(%s) failed, errno - %s\n Exiting...", templatePath().c_str(),
                 std::strerror(errno));
        endProcess();
    }
    KzUserId = status.stx_uid;
    KzGroupId = status.stx_gid;
    KzFileMode = status.stx_mode & 07777;
}

/// Makes the registry file from the template in one step: a process killed on the way leaves no half
/// registry. True when the file is there, whoever made it.
bool copyTemplate() {
    const CKZString path = registryPath();
    const CKZString temporary = KZTempNam(registryDirectory());
    const auto removeTemporary = foundation::onExit([&] { (void)sys::unlink(temporary.c_str()); });
    if (!copyForRegistryOwner(templatePath(), temporary)) return false;
    return sys::link(temporary.c_str(), path.c_str()) == 0 || errno == EEXIST;
}

void createFromTemplate() {
    for (int attempt = 0; attempt < kCopyAttempts; ++attempt) {
        if (attempt > 0) SleepEx(kCopyRetryMs, FALSE);
        struct statx status;
        if (sys::stat(registryPath().c_str(), &status) == 0 || copyTemplate()) return;
    }
    unix_err("InitRegistry: Template copy failed!!\n");
    const sys::UniqueFd file(sys::open(registryPath().c_str(), O_RDONLY));
    if (file) (void)giveToRegistryOwner(file.get());  // there is nothing more to be said
}

void ensureFile() {
    struct statx status;
    if (sys::stat(registryPath().c_str(), &status) != 0) {
        createFromTemplate();
        return;
    }
    if (status.stx_size > 0) return;
    // An empty registry is a lost one: the operator is to restore it, the template would hide the loss.
    unix_err(
        "\n\nInitRegistry: Registry is zero length.\nPlease restore %s from backup file %s.\nExiting...\n",
        registryPath().c_str(), backupPath().c_str());
    endProcess();
}

void start(DWORD flags, bool create) {
    const CancellationOff off;  // nobody else would finish it
    (void)SetRegistryPath(sRealInstallPath());
    checkAccess();
    recordTemplateOwner();
    RegInitSharedState(create);
    if (!create) return;
    {
        const CacheLockGuard guard;
        removeStaleTemporaryFiles();
        ensureFile();
        if ((flags & REG_INIT_BACKUP) && !copyToBackup()) unix_err("InitRegistry: Backup failed\n");
        (void)readTree(Purging::No);
    }
    SetDynamicRegistryValues(sRealInstallPath(), 0);
}

thread_local bool forkTookLocks = false;

/// Waits for a start that another thread is at: in the child there would be nobody to finish it.
void awaitStart() {
    while (std::atomic_ref(lRegReady).load(std::memory_order_acquire) != 0 && !isStarted())
        SleepEx(kForkPollMs, FALSE);
}

void beforeFork() {
    awaitStart();
    forkTookLocks = isStarted();
    if (!forkTookLocks) return;
    lockCacheForFork();
    lockOpenKeysForFork();
    lockTreeForFork();
}

void unlockTreeAndOpenKeys() {
    unlockTreeAfterFork();
    unlockOpenKeysAfterFork();
}

void afterForkInParent() {
    if (!forkTookLocks) return;
    unlockTreeAndOpenKeys();
    unlockCacheAfterFork();
}

void afterForkInChild() {
    std::atomic_ref(bLazyFlush).store(0, std::memory_order_relaxed);  // the writer's thread stayed behind
    if (!forkTookLocks) return;
    unlockTreeAndOpenKeys();
    resetCacheInChild();
}

}  // namespace

void ensureStarted() {
    if (!isStarted()) InitRegistry(/*flags=*/0, /*create=*/true);
}

void startRegistryFloor() {
    pthread_atfork(beforeFork, afterForkInParent, afterForkInChild);
}

}  // namespace traiklofox::registry

using namespace traiklofox::registry;

void InitRegistry(DWORD flags, bool create) {
    if (std::atomic_ref(lRegReady).exchange(1, std::memory_order_acq_rel) == 1) {
        while (!isStarted()) SleepEx(kStartPollMs, FALSE);
        return;
    }
    try {
        start(flags, create);
    } catch (const std::bad_alloc&) {
        std::fputs("InitRegistry: out of memory\n", stderr);
        endProcess();  // others wait for this start
    }
    noteStarted();
}

void SetDynamicRegistryValues(CKZString, int) {}
