#pragma once

// The registry's outermost lock: among the threads of this process a reader-writer lock, among the processes
// of the installation the semaphore, which the exclusive side takes too. It is held whenever the file is read
// into the tree or written.

#include <traiklofox/registry.h>

#include <atomic>
#include <cstdint>

#include "registry/cancellation_off.h"

namespace traiklofox::registry {

/// The version of the file that this process's tree was last read from or written to.
extern constinit std::atomic<std::uint32_t> MyVersionStamp;

/// Whether a whole file has been read into the tree. Until then the tree counts as out of date, whatever the
/// stamps.
bool treeIsRead();
void noteTreeRead();
void noteTreeOutOfDate();

/// True when the tree is that of the present file, as far as can be seen without a lock.
///
/// A writer shows its id as the holder before it touches the file, and 0 after it has counted its write. So
/// with no holder, and after that the same stamp, the look-up that goes on happened before whatever write
/// comes next.
bool treeIsCurrent();

/// Takes the exclusive lock for a scope, in which the thread is not cancelled. Nests.
class CacheLockGuard {
  public:
    CacheLockGuard();
    ~CacheLockGuard();
    CacheLockGuard(const CacheLockGuard&) = delete;
    CacheLockGuard& operator=(const CacheLockGuard&) = delete;

  private:
    const CancellationOff off_;
};

/// Takes only the lock among processes, for a scope. Nests, also with the exclusive lock.
class FileLockGuard {
  public:
    FileLockGuard();
    ~FileLockGuard();
    FileLockGuard(const FileLockGuard&) = delete;
    FileLockGuard& operator=(const FileLockGuard&) = delete;
};

/// Reads the file when the tree is not that of the present one. Returns true if it read.
bool bringTreeUpToDate();

/// Starts the registry if it has not started.
void ensureStarted();

/// Around a fork: no other thread is then reading or writing the file.
void lockCacheForFork();
void unlockCacheAfterFork();
void resetCacheInChild();

}  // namespace traiklofox::registry
