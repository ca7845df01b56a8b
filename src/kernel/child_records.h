#pragma once

// Who collects which child. For each child that the library has started there is one record, which its handles
// share; a handle to another process has a record of its own.

#include <sys/types.h>

#include <atomic>
#include <memory>
#include <optional>

namespace traiklofox::kernel {

struct ChildRecord {
    enum class Fate {
        Uncollected,
        Collected,  // `waitStatus` tells how it ended
        Lost,       // somebody else has collected it, or it is no child of this process
    };

    explicit ChildRecord(pid_t id) : pid(id) {}

    const pid_t pid;
    bool isOurs = false;  // the library started it; like `handles` under the lock of all records
    int handles = 0;      // that name it
    int waitStatus = 0;   // written before `fate` says so
    std::atomic<Fate> fate{Fate::Uncollected};
};

class ChildRecords {
  public:
    /// Notes that the library has started this child. Does nothing when there is no memory for it: the child is
    /// then like one that the application forked.
    static void adopt(pid_t pid) noexcept;

    /// The record for a new handle that names the process.
    static std::shared_ptr<ChildRecord> name(pid_t pid);
    /// A handle goes. With the last one of a child that the library started it collects the child. True: it still
    /// runs, and is to be collected when it ends.
    [[nodiscard]] static bool unname(ChildRecord& record);

    /// Waits for the end of the child and collects it, unless that is done. The wait status; nothing, with errno,
    /// when it is not to be had.
    static std::optional<int> collect(ChildRecord& record);

    /// Around a fork. The child has none of these children.
    static void lockForFork();
    static void unlockAfterFork();
    static void forgetInForkedChild();
};

}  // namespace traiklofox::kernel
