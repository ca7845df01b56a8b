// directory_data.cpp: Dir_Data, the map from a watched path to what is known of it.

#include "files/directory_data.h"

#include <algorithm>

#include "files/notification_state.h"
#include "files/renewed_in_child.h"
#include "foundation/mutex.h"
#include "foundation/on_exit.h"

namespace traiklofox::files {

using foundation::LockGuard;
using foundation::LockRank;

namespace {

struct DirectoryData {
    RankedRWLock<LockRank::DirectoryData> lock{"Dir_Data_lock"};
    std::map<CKZString, std::shared_ptr<DirectoryWatch>, std::less<>> watches TRAIKLOFOX_GUARDED_BY(lock);
};

DirectoryData& Dir_Data() {
    return RenewedInChild<DirectoryData>::get();
}

std::shared_ptr<DirectoryWatch> findOrMake(DirectoryData& data, const CKZString& path)
    TRAIKLOFOX_REQUIRES(data.lock) {
    std::shared_ptr<DirectoryWatch>& watch = data.watches[path];
    if (watch == nullptr) {
        const auto undo = foundation::onExit([&]() TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
            if (watch == nullptr) data.watches.erase(path);
        });
        watch = std::make_shared<DirectoryWatch>(path, &data);
    }
    return watch;
}

/// One user less.
void release(const std::shared_ptr<DirectoryWatch>& watch) {
    std::shared_ptr<DirectoryWatch> forgotten;  // without the lock
    DirectoryData& data = Dir_Data();
    const LockGuard guard(data.lock);
    if (--watch->users > 0 || watch->isPinned) return;
    const auto found = data.watches.find(watch->path);
    if (found == data.watches.end() || found->second != watch) return;
    forgotten = std::move(found->second);
    data.watches.erase(found);
}

}  // namespace

std::shared_ptr<DirectoryWatch> pinnedWatch(const CKZString& path) {
    DirectoryData& data = Dir_Data();
    const LockGuard guard(data.lock);
    std::shared_ptr<DirectoryWatch> watch = findOrMake(data, path);
    if (watch->users == 0) watch->isPinned = true;
    return watch;
}

std::shared_ptr<DirectoryWatch> joinWatch(const CKZString& path, ChangeNotificationHandle& handle) {
    NotificationState& state = NotificationState::of(handle);
    {
        const LockGuard guard(state);
        if (state.watch != nullptr) return state.watch;
    }
    std::shared_ptr<DirectoryWatch> watch;
    {
        DirectoryData& data = Dir_Data();
        const LockGuard guard(data.lock);
        watch = findOrMake(data, path);
        ++watch->users;
    }
    auto undo = foundation::onExit([&] { release(watch); });
    const LockGuard entryGuard(watch->lock);
    const LockGuard guard(state);
    if (state.watch != nullptr) return state.watch;  // another thread was first
    watch->handles.push_back(&handle);
    state.watch = watch;
    undo.dismiss();
    return watch;
}

void leaveWatch(ChangeNotificationHandle& handle) {
    NotificationState& state = NotificationState::of(handle);
    std::shared_ptr<DirectoryWatch> watch;
    {
        const LockGuard guard(state);
        watch = std::move(state.watch);
        state.watch = nullptr;
    }
    if (watch == nullptr || watch->home != &Dir_Data()) return;  // the parent's: it may be locked for ever
    {
        const LockGuard guard(watch->lock);
        std::erase(watch->handles, &handle);
    }
    release(watch);
}

void awaitScan(ChangeNotificationHandle& handle) {
    NotificationState& state = NotificationState::of(handle);
    std::shared_ptr<DirectoryWatch> watch;
    {
        const LockGuard guard(state);
        watch = state.watch;
    }
    if (watch == nullptr) return;
    const LockGuard untilItEnds(watch->lock);
}

std::vector<std::shared_ptr<DirectoryWatch>> allWatches() {
    DirectoryData& data = Dir_Data();
    const SharedGuard guard(data.lock);
    std::vector<std::shared_ptr<DirectoryWatch>> all;
    for (const auto& [path, watch] : data.watches) all.push_back(watch);
    return all;
}

}  // namespace traiklofox::files
