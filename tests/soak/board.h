#pragma once

// What the processes of a run share, in a mapped file that outlives whoever is killed: counts of operations, what was
// asked and acknowledged, and what has become of the invariants.

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

namespace traiklofox::soak {

// clang-format off
// What is counted, and what the worst time is of.
#define SOAK_OPERATIONS(ROW) \
    ROW(RegistryWrite,  "registry: step of several changes, flushed") \
    ROW(RegistryLook,   "registry: key opened, read and closed") \
    ROW(Notification,   "registry: change told by an event") \
    ROW(LazyWrite,      "registry: lazy write, set to file") \
    ROW(Signal,         "event handed over and back") \
    ROW(SemaphoreUnit,  "semaphore unit taken") \
    ROW(MixedWait,      "wait for event, thread and process") \
    ROW(Timer,          "timer fired (worst: how late)") \
    ROW(QueuedCall,     "queued call run") \
    ROW(PoolJob,        "pool job, from queue to end") \
    ROW(Child,          "child, start to exit code") \
    ROW(FileLock,       "file lock taken") \
    ROW(Mapping,        "named mapping opened, changed, closed") \
    ROW(DroppedFile,    "dropped file, to its report") \
    ROW(TemporaryName,  "temporary file named and made") \
    ROW(Search,         "directory searched") \
    ROW(Copy,           "file copied") \
    ROW(Date,           "date rendered and parsed") \
    ROW(ProfileWrite,   "profile value written") \
    ROW(Uuid,           "UUID made, to text and back") \
    ROW(ProcessList,    "process list")

#define SOAK_INVARIANTS(ROW) \
    ROW(WritesStay,        "no acknowledged registry write is lost") \
    ROW(FileIsWhole,       "the registry file is whole whenever it is read") \
    ROW(WritesAreSeen,     "an acknowledged write is seen by every later look-up") \
    ROW(ChangesAreTold,    "an acknowledged change signals the event tied before") \
    ROW(NobodyBlocks,      "nobody is blocked for a minute") \
    ROW(NobodyCrashes,     "nobody ends but by our SIGKILL") \
    ROW(SignalsArrive,     "no signal, unit or call is lost or counted twice") \
    ROW(TimersFire,        "each timer fires once, not early, cancelled ones never") \
    ROW(JobsRun,           "each pool job runs once") \
    ROW(ChildrenReaped,    "each child gives its exit code and is reaped") \
    ROW(LocksExclude,      "a file lock has one holder") \
    ROW(MappingsShared,    "no change of a named mapping is lost") \
    ROW(FilesReported,     "a dropped file is reported once, and once when gone") \
    ROW(NamesUnique,       "no temporary name is given twice") \
    ROW(SearchesFind,      "a search finds what is there") \
    ROW(CopiesWhole,       "a copy that succeeds is whole") \
    ROW(DatesRoundTrip,    "a date rendered and parsed is the same") \
    ROW(ProfilesKeep,      "no acknowledged profile write is lost") \
    ROW(UuidsDiffer,       "UUIDs differ, and survive their text") \
    ROW(ProcessesListed,   "the process list has this process and its parent") \
    ROW(NothingLeaks,      "no descriptor or thread is left over") \
    ROW(MemoryBounded,     "memory does not grow after the warm-up") \
    ROW(SharedStateClean,  "one semaphore, free; one page, attached by nobody")
// clang-format on

#define SOAK_NAME(name, text) name,
#define SOAK_TEXT(name, text) text,
enum class Op : unsigned { SOAK_OPERATIONS(SOAK_NAME) };
enum class Invariant : unsigned { SOAK_INVARIANTS(SOAK_NAME) };
using enum Invariant;
constexpr const char* kOperations[] = {SOAK_OPERATIONS(SOAK_TEXT)};
constexpr const char* kInvariants[] = {SOAK_INVARIANTS(SOAK_TEXT)};
constexpr size_t kOperationCount = std::size(kOperations);
constexpr size_t kInvariantCount = std::size(kInvariants);

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
    Count residentGrowthKiB, heapGrowthKiB;  // the most of any process
    Count guarded;                           // changed under the file lock alone, in two steps
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

/// Takes note of the most.
void raise(Count& most, std::uint32_t value);

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
