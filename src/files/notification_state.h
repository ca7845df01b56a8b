#pragma once

// What a change notification handle consists of, and what scanner and ports do with it.

#include <traiklofox/change_notification.h>
#include <traiklofox/critical_section.h>
#include <traiklofox/events.h>
#include <traiklofox/threads.h>

#include <atomic>
#include <memory>
#include <string_view>
#include <vector>

#include "files/handle_ref.h"
#include "foundation/mutex.h"

namespace traiklofox::files {

class DirectoryWatch;

/// Who has asked to be called when changes have come. On its way to that thread it owns itself.
struct CompletionCall {
    LPOVERLAPPED_COMPLETION_ROUTINE routine;
    HandleRef<Thread> thread;  // until it is on its way: the thread's queue then holds the call
    HandleRef<ChangeNotificationHandle> handle;  // once on its way
    unsigned request;                            // the number of the request that it answers
};

class TRAIKLOFOX_CAPABILITY("change records") NotificationState {
  public:
    NotificationState(const char* givenPath, BOOL subtree, DWORD wanted);

    static NotificationState& of(const ChangeNotificationHandle& handle) { return *handle.self; }

    void lock() TRAIKLOFOX_ACQUIRE();
    void unlock() TRAIKLOFOX_RELEASE();

    /// Queues a change in `directory`, if records are kept, and notes it as pending if the scanner has the handle.
    void report(const _NOTIFY_INFO& record, std::string_view directory);

    /// Notes a change in `directory` as pending, if the scanner has the handle.
    void notePending(std::string_view directory);

    /// Uses the signal up; true, once for all callers, when there was one.
    bool claim() {
        const bool wasPending = pending.exchange(0) != 0;
        return state.exchange(0) != 0 || wasPending;
    }
    bool isSignaled() const { return pending.load() != 0 || state.load() != 0; }
    bool isClosed() const { return owners.load() <= 0; }

    // Changed with the lock held; looked at without.
    std::atomic<BOOL> pending = 0;
    std::atomic<BOOL> state = 0;
    std::atomic<int> owners = 1;  // who may yet close the handle: neither the scanner nor a port

    CKZString path TRAIKLOFOX_GUARDED_BY(this);
    CKZString changeString TRAIKLOFOX_GUARDED_BY(this);
    BOOL changed TRAIKLOFOX_GUARDED_BY(this) = 0;
    BOOL watchSubtree TRAIKLOFOX_GUARDED_BY(this);
    DWORD filter TRAIKLOFOX_GUARDED_BY(this);
    bool isListed TRAIKLOFOX_GUARDED_BY(this) = false;   // the scanner has it
    bool isHearsay TRAIKLOFOX_GUARDED_BY(this) = false;  // signalled for what its filter does not ask for
    std::unique_ptr<NotifyRecords> records TRAIKLOFOX_GUARDED_BY(this);
    void* buffer TRAIKLOFOX_GUARDED_BY(this) = nullptr;
    DWORD bufferSize TRAIKLOFOX_GUARDED_BY(this) = 0;
    std::unique_ptr<std::byte[]> ownBuffer TRAIKLOFOX_GUARDED_BY(this);  // where the caller gave none
    ULONG_PTR key TRAIKLOFOX_GUARDED_BY(this) = 0;
    _OVERLAPPED* overlapped TRAIKLOFOX_GUARDED_BY(this) = nullptr;
    bool isReading TRAIKLOFOX_GUARDED_BY(this) = false;  // asked for changes that are not delivered yet
    unsigned request TRAIKLOFOX_GUARDED_BY(this) = 0;    // how many have been made
    DWORD lastDelivered TRAIKLOFOX_GUARDED_BY(this) = 0;
    std::unique_ptr<CompletionCall> completion TRAIKLOFOX_GUARDED_BY(this);
    HandleRef<Handle> auxEvent TRAIKLOFOX_GUARDED_BY(this);
    std::vector<HandleRef<Event>> portEvents TRAIKLOFOX_GUARDED_BY(this);  // of the ports it is a member of
    std::shared_ptr<DirectoryWatch> watch TRAIKLOFOX_GUARDED_BY(this);     // null before it was first watched

  private:
    _critsection section_{};
};

}  // namespace traiklofox::files
