#include "files/notification_state.h"

#include "files/file_attributes.h"
#include "foundation/mutex.h"

namespace traiklofox::files {

using foundation::LockRank;

namespace {

// More than a directory that is scanned for the first time has files; who leaves as many unread learns only that
// everything may be different.
constexpr size_t kMostRecords = 1'000'000;

}  // namespace

NotificationState::NotificationState(const char* givenPath, BOOL subtree, DWORD wanted)
    : path(givenPath), watchSubtree(subtree != 0), filter(wanted) {}

// The order of locks is about the outermost entry: the section is recursive.
void NotificationState::lock() {
    EnterCriticalSection(&section_);
    if (section_.count == 1) foundation::noteLockAcquired(LockRank::NotifyRecords, this);
}

void NotificationState::unlock() {
    if (section_.count == 1) foundation::noteLockReleased(LockRank::NotifyRecords, this);
    LeaveCriticalSection(&section_);
}

void NotificationState::report(const _NOTIFY_INFO& record, std::string_view directory) {
    const foundation::LockGuard guard(*this);
    if (records != nullptr) {
        if (records->size() >= kMostRecords) {
            records->clear();
            records->push_back({.action = FILE_ACTION_DIRECTORY_CHANGED,
                                .name = {},
                                .time = record.time,
                                .attributes = FILE_ATTRIBUTE_DIRECTORY,
                                .size = 0});
        } else {
            records->push_back(record);
        }
    }
    notePending(directory);
}

void NotificationState::notePending(std::string_view directory) {
    const foundation::LockGuard guard(*this);
    if (!isListed) return;
    changeString.assign(directory);
    isHearsay = false;
    pending.store(1);
}

}  // namespace traiklofox::files
