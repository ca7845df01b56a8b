#pragma once

// What the processes of a run share, in a mapped file that outlives whoever is killed: counts of operations, what was
// asked and acknowledged, and what has become of the invariants.

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

namespace traiklofox::soak {

enum class Op : unsigned {
    RegistryWrite,
    RegistryLook,
    Notification,
    LazyWrite,
    Signal,
    SemaphoreUnit,
    MixedWait,
    Timer,
    QueuedCall,
    PoolJob,
    Child,
    FileLock,
    Mapping,
    DroppedFile,
    TemporaryName,
    Search,
    Copy,
    Date,
    ProfileWrite,
    Uuid,
    ProcessList,
};
/// What one is counted, and what the worst time is of.
constexpr const char* kOperations[] = {
    "registry: step of several changes, flushed",
    "registry: key opened, read and closed",
    "registry: change told by an event",
    "registry: lazy write, set to file",
    "event handed over and back",
    "semaphore unit taken",
    "wait for event, thread and process",
    "timer fired (worst: how late)",
    "queued call run",
    "pool job, from queue to end",
    "child, start to exit code",
    "file lock taken",
    "named mapping opened, changed, closed",
    "dropped file, to its report",
    "temporary file named and made",
    "directory searched",
    "file copied",
    "date rendered and parsed",
    "profile value written",
    "UUID made, to text and back",
    "process list",
};
constexpr size_t kOperationCount = std::size(kOperations);
static_assert(kOperationCount == static_cast<size_t>(Op::ProcessList) + 1);

enum class Invariant : unsigned {
    WritesStay,
    FileIsWhole,
    WritesAreSeen,
    ChangesAreTold,
    NobodyBlocks,
    NobodyCrashes,
    SignalsArrive,
    TimersFire,
    JobsRun,
    ChildrenReaped,
    LocksExclude,
    MappingsShared,
    FilesReported,
    NamesUnique,
    SearchesFind,
    CopiesWhole,
    DatesRoundTrip,
    ProfilesKeep,
    UuidsDiffer,
    ProcessesListed,
    NothingLeaks,
    MemoryBounded,
    SharedStateClean,
};
constexpr const char* kInvariants[] = {
    "no acknowledged registry write is lost",
    "the registry file is whole whenever it is read",
    "an acknowledged write is seen by every later look-up",
    "an acknowledged change signals the event tied before",
    "nobody is blocked for a minute",
    "nobody ends but by our SIGKILL",
    "no signal, unit or call is lost or counted twice",
    "each timer fires once, not early, cancelled ones never",
    "each pool job runs once",
    "each child gives its exit code and is reaped",
    "a file lock has one holder",
    "no change of a named mapping is lost",
    "a dropped file is reported once, and once when gone",
    "no temporary name is given twice",
    "a search finds what is there",
    "a copy that succeeds is whole",
    "a date rendered and parsed is the same",
    "no acknowledged profile write is lost",
    "UUIDs differ, and survive their text",
    "the process list has this process and its parent",
    "no descriptor or thread is left over",
    "memory does not grow after the warm-up",
    "one semaphore, free; one page, attached by nobody",
};
constexpr size_t kInvariantCount = std::size(kInvariants);
static_assert(kInvariantCount == static_cast<size_t>(Invariant::SharedStateClean) + 1);

using Count = std::atomic<std::uint32_t>;
static_assert(Count::is_always_lock_free, "a killed process must leave no lock behind");

/// Of something that counts up: a kill may come between the two.
struct Journal {
    Count asked;
    Count acknowledged;
};

/// One worker, whichever process plays it at the time.
struct Slot {
    Count beat;  // seconds of the monotonic clock when it last got something done
    Journal registry, profile, locks, mapping;
};

constexpr size_t kMostSlots = 32;

struct Board {
    Count stop;       // the run is over
    Count warmUntil;  // seconds of the monotonic clock
    Count clockSteps, faults;
    Count guarded;  // changed under the file lock alone, in two steps
    struct {
        Count done, refused, worstUs;
    } operations[kOperationCount];
    struct {
        Count checks, broken;
        char first[300];
    } invariants[kInvariantCount];
    Slot slots[kMostSlots];
};

/// The board of this run, in the directory that the environment's SOAK_DIRECTORY names.
Board& board();
std::string runDirectory();

/// Counts a check. The first one that finds an invariant broken says so on the board, all of them on standard error.
void check(Invariant invariant, bool held, const char* format, ...) __attribute__((format(printf, 3, 4)));

using Clock = std::chrono::steady_clock;
std::uint32_t monotonicSeconds();

/// Notes what took so long, and that this worker lives.
void note(Op op, Clock::duration took);

/// Which worker this process is, for what is noted and checked.
void playAs(const std::string& role, size_t slot);
Slot& ownSlot();

/// Does it, and notes how long it took; a false result counts as refused.
template <class Operation>
bool timed(Op op, Operation operation) {
    const auto start = Clock::now();
    if (operation()) {
        note(op, Clock::now() - start);
        return true;
    }
    ++board().operations[static_cast<size_t>(op)].refused;
    return false;
}

}  // namespace traiklofox::soak
