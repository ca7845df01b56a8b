#pragma once

// The one list of the library's locks. A thread takes only a lock of a higher rank than any it holds; of two
// registry keys, the parent first. Builds with TRAIKLOFOX_CHECK_LOCK_ORDER (the sanitizer presets) check it
// at every acquisition and abort with both names; elsewhere the checks compile to nothing.

#include <cstdint>

namespace traiklofox::foundation {

enum class LockRank : std::uint8_t {
    WatchHandles,    // the directory scanner's handles
    DirectoryData,   // path -> what is known of a watched directory
    DirectoryEntry,  // one watched directory: its files, and the handles that hear of changes
    NotifyRecords,   // a watch handle: its records, and whom to wake
    CompletionPort,  // a port's members and packets
    RegistryCache,   // the tree against re-reads and writes of the file: RWLock, then the System V semaphore
    OpenKeys,        // registry handle number -> open key
    RegistryKey,     // one key's values and subkeys, parent before child
    KeyNumbers,      // the numbers in use by registry keys
    ProfileWrites,   // a profile's change, from its reading to the file's replacement
    ProfileMap,      // the profiles in the cache
    Profile,         // one profile's cached text
    ProcessWatch,    // the processes that the watching thread looks at
    Timers,          // Timer::RequestLock: the queued timers
    ThreadPool,      // a pool's jobs and workers
    ThreadState,     // a thread's id, and whether it still runs
    EventBookkeeping,  // Event::EventLock
    Event,             // one event's state, waiters and registered multiple waits
    EmbeddedEvent,     // the event inside a MultiEvent
    Semaphore,         // who waits for a semaphore or a mutex
    Leaf,              // takes nothing further: RWLock's mutex, a thread's call queue, clocks
};

#if defined(TRAIKLOFOX_CHECK_LOCK_ORDER)
void noteLockAcquired(LockRank rank, const void* lock);
void noteLockReleased(LockRank rank, const void* lock);
#else
inline void noteLockAcquired(LockRank, const void*) {}
inline void noteLockReleased(LockRank, const void*) {}
#endif

}  // namespace traiklofox::foundation
