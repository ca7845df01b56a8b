#include "registry/cache_lock.h"

#include <traiklofox/rwlock.h>

#include <string>
#include <utility>

#include "foundation/mutex.h"
#include "registry/registry_reader.h"
#include "registry/shared_state.h"

namespace traiklofox::registry {

namespace {

using foundation::LockGuard;
using foundation::LockRank;

/// The reader-writer lock with what belongs to it. Readers go first, so that a thread that already reads may
/// read again, as a fork does.
struct RegCacheLock {
    std::atomic<int> readRecursion{0};  // shared locks taken by the thread that writes
    RWLock lock{/*readerPriority=*/true, /*name=*/nullptr, /*spare=*/false};
    // Held, for writing, by the thread that has the semaphore or is about to take it.
    RWLock fileTurn{/*readerPriority=*/true, /*name=*/nullptr, /*spare=*/false};
    foundation::Mutex<LockRank::Leaf> nameLock;
    std::string name TRAIKLOFOX_GUARDED_BY(nameLock) = "RegistryCacheLock";
};

RegCacheLock& cacheLock() {
    static auto& made = *new RegCacheLock;
    return made;
}

constinit std::atomic<bool> readOnce{false};

// The thread that has the semaphore for this process, and how often it has taken it. Changed by that thread
// alone; atomic because the semaphore that hands them on is not one that compilers and sanitizers know of.
constinit std::atomic<pthread_t> RegLockOwner{0};
constinit std::atomic<int> RegLockDepth{0};

bool ownsFileLock() {
    return RegLockOwner.load(std::memory_order_relaxed) == pthread_self();
}

/// For the thread whose turn it is.
void lockFileInTurn() {
    takeSemaphore();
    RegLockOwner.store(pthread_self(), std::memory_order_relaxed);
    RegLockDepth.store(1, std::memory_order_relaxed);
}

bool lockFileAgain() {
    if (!ownsFileLock()) return false;
    RegLockDepth.fetch_add(1, std::memory_order_relaxed);
    return true;
}

void lockFile() {
    if (lockFileAgain()) return;
    (void)cacheLock().fileTurn.WriteLock();
    lockFileInTurn();
}

/// False when another thread of this process has it.
bool tryLockFile() {
    if (lockFileAgain()) return true;
    if (!cacheLock().fileTurn.TryWriteLock()) return false;
    lockFileInTurn();
    return true;
}

bool unlockFile() {
    if (!ownsFileLock()) return false;
    if (RegLockDepth.fetch_sub(1, std::memory_order_relaxed) > 1) return true;
    RegLockOwner.store(0, std::memory_order_relaxed);
    giveSemaphore();
    return cacheLock().fileTurn.WriteUnlock();
}

void lockExclusive() {
    RegCacheLock& cache = cacheLock();
    (void)cache.lock.WriteLock();  // without a time limit it cannot fail
    while (!tryLockFile()) {
        // Whoever took the lock among processes alone may want this one too before he lets go.
        (void)cache.lock.WriteUnlock();
        (void)cache.fileTurn.WriteLock();
        (void)cache.fileTurn.WriteUnlock();
        (void)cache.lock.WriteLock();
    }
    foundation::noteLockAcquired(LockRank::RegistryCache, &cache);
}

bool unlockExclusive() {
    if (!cacheLock().lock.IsWriteLockedByMe()) return false;
    (void)unlockFile();
    foundation::noteLockReleased(LockRank::RegistryCache, &cacheLock());
    return cacheLock().lock.WriteUnlock();
}

void lockShared() {
    if (cacheLock().lock.IsWriteLockedByMe())
        cacheLock().readRecursion.fetch_add(1, std::memory_order_relaxed);
    else
        (void)cacheLock().lock.ReadLock();
}

void unlockShared() {
    std::atomic<int>& recursion = cacheLock().readRecursion;
    if (cacheLock().lock.IsWriteLockedByMe() && recursion.load(std::memory_order_relaxed) > 0)
        recursion.fetch_sub(1, std::memory_order_relaxed);
    else
        (void)cacheLock().lock.ReadUnlock();
}

}  // namespace

constinit std::atomic<std::uint32_t> MyVersionStamp{0};

bool treeIsRead() {
    return readOnce.load(std::memory_order_acquire);
}
void noteTreeRead() {
    readOnce.store(true, std::memory_order_release);
}
void noteTreeOutOfDate() {
    readOnce.store(false, std::memory_order_release);
}

bool treeIsCurrent() {
    const SharedPage& shared = *ShmStruct();
    return shared.lockHolder.load(std::memory_order_seq_cst) == 0 && treeIsRead() &&
           shared.stamp.load(std::memory_order_seq_cst) == MyVersionStamp.load(std::memory_order_acquire);
}

CacheLockGuard::CacheLockGuard() {
    lockExclusive();
}
CacheLockGuard::~CacheLockGuard() {
    (void)unlockExclusive();
}

FileLockGuard::FileLockGuard() {
    lockFile();
}
FileLockGuard::~FileLockGuard() {
    (void)unlockFile();
}

bool bringTreeUpToDate() {
    if (treeIsCurrent()) return false;
    const CacheLockGuard guard;
    if (treeIsRead() && ShmStruct()->stamp.load() == MyVersionStamp.load()) return false;
    return readTree(Purging::Yes) != 0;
}

void lockCacheForFork() {
    lockShared();
}

void unlockCacheAfterFork() {
    unlockShared();
}

void resetCacheInChild() {
    // Whatever the forking thread held of it, the semaphore is its parent's.
    if (cacheLock().lock.IsWriteLockedByMe())
        foundation::noteLockReleased(LockRank::RegistryCache, &cacheLock());
    cacheLock().lock.ResetInChild();
    cacheLock().fileTurn.ResetInChild();
    cacheLock().readRecursion.store(0, std::memory_order_relaxed);
    RegLockOwner.store(0, std::memory_order_relaxed);
    RegLockDepth.store(0, std::memory_order_relaxed);
}

}  // namespace traiklofox::registry

using namespace traiklofox::registry;

int RegLockCache(RegLockOp_t operation) {
    ensureStarted();
    switch (operation) {
        case REG_LOCK_SHARED: lockShared(); return 1;
        case REG_LOCK_EXCLUSIVE: lockExclusive(); return 1;
    }
    return 0;
}

int RegUnlockCache(RegLockOp_t operation) {
    switch (operation) {
        case REG_LOCK_SHARED: unlockShared(); return 1;
        case REG_LOCK_EXCLUSIVE: return unlockExclusive();
    }
    return 0;
}

void RegSetCacheLockName(const char* name) {
    RegCacheLock& cache = cacheLock();
    const LockGuard guard(cache.nameLock);
    cache.name = name != nullptr ? name : "";
}

int RegLockRegistryFile() {
    ensureStarted();
    lockFile();
    return 1;
}

int RegUnlockRegistryFile() {
    return unlockFile();
}

int RegUpdateCache() {
    ensureStarted();
    const CacheLockGuard guard;
    if (treeIsRead() && ShmStruct()->stamp.load() == MyVersionStamp.load()) return 0;
    return ReadRegistry(/*purge=*/1);
}
