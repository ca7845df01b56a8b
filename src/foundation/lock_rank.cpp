#include "foundation/lock_rank.h"

#if defined(TRAIKLOFOX_CHECK_LOCK_ORDER)

#include <cstdio>
#include <cstdlib>
#include <iterator>

namespace traiklofox::foundation {
namespace {

constexpr const char* kRankNames[] = {"watch handles",
                                      "directory data",
                                      "directory entry",
                                      "notify records",
                                      "completion port",
                                      "registry cache",
                                      "open keys",
                                      "registry key",
                                      "key numbers",
                                      "profile writes",
                                      "profile map",
                                      "profile",
                                      "process watch",
                                      "timers",
                                      "thread pool",
                                      "thread state",
                                      "event bookkeeping",
                                      "event",
                                      "embedded event",
                                      "semaphore",
                                      "leaf"};
static_assert(std::size(kRankNames) == static_cast<size_t>(LockRank::Leaf) + 1);

// A path walk holds two keys at a time; nothing nests deeper than this.
constexpr int kMostHeld = 32;

struct Held {
    LockRank rank;
    const void* lock;
};

thread_local Held held[kMostHeld];
thread_local int heldCount = 0;

const char* nameOf(LockRank rank) {
    return kRankNames[static_cast<int>(rank)];
}

[[noreturn]] void fail(const char* what, LockRank wanted, LockRank holding) {
    std::fprintf(stderr, "lock order: %s: taking \"%s\" while holding \"%s\"\n", what, nameOf(wanted),
                 nameOf(holding));
    std::abort();
}

}  // namespace

void noteLockAcquired(LockRank rank, const void* lock) {
    for (int i = 0; i < heldCount; ++i) {
        if (held[i].rank > rank) fail("out of order", rank, held[i].rank);
        if (held[i].rank == rank && rank != LockRank::RegistryKey && rank != LockRank::RegistryCache)
            fail("two of one rank", rank, held[i].rank);
    }
    if (heldCount == kMostHeld) fail("too many", rank, held[heldCount - 1].rank);
    held[heldCount++] = {rank, lock};
}

void noteLockReleased(LockRank rank, const void* lock) {
    for (int i = heldCount - 1; i >= 0; --i) {
        if (held[i].lock != lock) continue;
        for (int j = i; j + 1 < heldCount; ++j) held[j] = held[j + 1];
        --heldCount;
        return;
    }
    fail("released without being held", rank, rank);
}

}  // namespace traiklofox::foundation

#endif
