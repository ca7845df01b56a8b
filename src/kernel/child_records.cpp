#include "kernel/child_records.h"

#include <algorithm>
#include <map>

#include "foundation/mutex.h"
#include "foundation/sys.h"

namespace traiklofox::kernel {

using foundation::LockGuard;
using Fate = ChildRecord::Fate;

namespace {

constinit foundation::Mutex<foundation::LockRank::Leaf> recordsLock;

/// The uncollected children that the library has started.
std::map<pid_t, std::shared_ptr<ChildRecord>>& records() TRAIKLOFOX_REQUIRES(recordsLock) {
    static auto& all = *new std::map<pid_t, std::shared_ptr<ChildRecord>>;
    return all;
}

/// When more records than this have gathered, those of children that the application collected are dropped.
constinit std::size_t sweepAbove TRAIKLOFOX_GUARDED_BY(recordsLock) = 64;

/// The record has its last fate: its process id may be another process's from now on.
void settle(ChildRecord& record, Fate fate) TRAIKLOFOX_REQUIRES(recordsLock) {
    record.fate.store(fate, std::memory_order_release);
    const auto found = records().find(record.pid);
    if (found != records().end() && found->second.get() == &record) records().erase(found);
}

bool isStillChild(pid_t pid) {
    siginfo_t end{};
    return sys::waitid(P_PID, static_cast<id_t>(pid), &end, WEXITED | WNOHANG | WNOWAIT) == 0;
}

void sweep() TRAIKLOFOX_REQUIRES(recordsLock) {
    if (records().size() <= sweepAbove) return;
    std::erase_if(records(),
                  [](const auto& entry) { return entry.second->handles == 0 && !isStillChild(entry.first); });
    sweepAbove = std::max(sweepAbove, 2 * records().size());
}

/// Collects the child if it has ended. False: it still runs.
bool collectIfEnded(ChildRecord& record) TRAIKLOFOX_REQUIRES(recordsLock) {
    if (record.fate.load(std::memory_order_relaxed) != Fate::Uncollected) return true;
    const pid_t collected = sys::waitpid(record.pid, &record.waitStatus, WNOHANG);
    if (collected == 0) return false;
    settle(record, collected == record.pid ? Fate::Collected : Fate::Lost);
    return true;
}

}  // namespace

void ChildRecords::adopt(pid_t pid) noexcept {
    try {
        auto record = std::make_shared<ChildRecord>(pid);
        record->isOurs = true;
        const LockGuard guard(recordsLock);
        sweep();
        auto& place = records()[pid];
        // The id was another child's before, which the application has collected.
        if (place != nullptr) place->fate.store(Fate::Lost, std::memory_order_release);
        place = std::move(record);
    } catch (const std::bad_alloc&) {
        return;
    }
}

std::shared_ptr<ChildRecord> ChildRecords::name(pid_t pid) {
    {
        const LockGuard guard(recordsLock);
        const auto found = records().find(pid);
        if (found != records().end()) {
            ++found->second->handles;
            return found->second;
        }
    }
    return std::make_shared<ChildRecord>(pid);
}

bool ChildRecords::unname(ChildRecord& record) {
    const LockGuard guard(recordsLock);
    if (!record.isOurs || --record.handles > 0) return false;
    return !collectIfEnded(record);
}

std::optional<int> ChildRecords::collect(ChildRecord& record) {
    if (record.pid <= 0) {  // would stand for a group of processes
        errno = ECHILD;
        return std::nullopt;
    }
    if (record.fate.load(std::memory_order_acquire) == Fate::Uncollected) {
        siginfo_t end{};
        const int error =
            sys::waitid(P_PID, static_cast<id_t>(record.pid), &end, WEXITED | WNOWAIT) == 0 ? 0 : errno;
        const LockGuard guard(recordsLock);
        if (error == 0) (void)collectIfEnded(record);  // it has ended
        errno = error;
    } else {
        errno = ECHILD;
    }
    if (record.fate.load(std::memory_order_acquire) != Fate::Collected) return std::nullopt;
    return record.waitStatus;
}

// The natives, unchecked: see ProcessWatcher.
void ChildRecords::lockForFork() TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
    pthread_mutex_lock(recordsLock.native());
}

void ChildRecords::unlockAfterFork() TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
    pthread_mutex_unlock(recordsLock.native());
}

void ChildRecords::forgetInForkedChild() TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
    for (const auto& [pid, record] : records()) record->isOurs = false;
    records().clear();
    pthread_mutex_unlock(recordsLock.native());
}

}  // namespace traiklofox::kernel
