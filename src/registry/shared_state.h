#pragma once

// What the processes of an installation share: a semaphore that serialises them, and a page that tells who
// holds it, who wrote last, and which version of the file is the present one. Both are found through the lock
// file's inode and outlive every process.

#include <traiklofox/registry.h>

#include <atomic>
#include <cstdint>

namespace traiklofox::registry {

struct SharedPage {
    std::atomic<std::uint32_t> lastWriter;  // process id
    std::atomic<std::uint32_t>
        lockHolder;  // process id; 0 when free. A process that died holding it may still show
    std::atomic<std::uint32_t> stamp;  // counts the writes of the file
};
static_assert(sizeof(SharedPage) == 12 && std::atomic<std::uint32_t>::is_always_lock_free);

/// The page; null until the shared state is attached. Once attached it stays readable for ever.
SharedPage* ShmStruct();

/// Takes the semaphore for the calling process, waiting without limit, and shows its id as the holder's. The
/// kernel gives it back when the process dies. A semaphore that somebody removed is made anew; the tree then
/// counts as out of date. The calls do not nest.
void takeSemaphore();
void giveSemaphore();

}  // namespace traiklofox::registry
