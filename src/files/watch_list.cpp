// watch_list.cpp: CNH_list, the handles that the scanner looks after.

#include "files/watch_list.h"

#include <algorithm>

#include "files/notification_state.h"
#include "files/renewed_in_child.h"
#include "foundation/mutex.h"

namespace traiklofox::files {

using foundation::LockGuard;
using foundation::LockRank;

namespace {

struct WatchList {
    RankedRWLock<LockRank::WatchHandles> lock{"ChangeNotificationHandle_lock"};
    std::vector<WatchedHandle> CNH_list TRAIKLOFOX_GUARDED_BY(lock);
};

WatchList& watchList() {
    return RenewedInChild<WatchList>::get();
}

}  // namespace

void listHandle(ChangeNotificationHandle& handle, const std::shared_ptr<DirectoryWatch>& watch) {
    WatchList& list = watchList();
    NotificationState& state = NotificationState::of(handle);
    const LockGuard listGuard(list.lock);
    const LockGuard guard(state);
    if (state.isListed) return;
    auto place = std::ranges::find(list.CNH_list, watch, &WatchedHandle::watch);
    if (place != list.CNH_list.end()) ++place;
    list.CNH_list.insert(place, {HandleRef<ChangeNotificationHandle>(&handle), watch});
    state.isListed = true;
}

HandleRef<ChangeNotificationHandle> unlistHandle(const Handle* handle) {
    WatchedHandle taken;  // its watch is let go without the lock
    WatchList& list = watchList();
    const LockGuard listGuard(list.lock);
    const auto place = std::ranges::find_if(
        list.CNH_list, [handle](const WatchedHandle& listed) { return listed.handle.get() == handle; });
    if (place == list.CNH_list.end()) return {};
    taken = std::move(*place);
    list.CNH_list.erase(place);
    NotificationState& state = NotificationState::of(*taken.handle);
    const LockGuard guard(state);
    state.isListed = false;
    return std::move(taken.handle);
}

std::vector<WatchedHandle> listedHandles() {
    WatchList& list = watchList();
    const SharedGuard guard(list.lock);
    std::vector<WatchedHandle> handles;
    handles.reserve(list.CNH_list.size());
    for (const WatchedHandle& listed : list.CNH_list)
        handles.push_back({HandleRef<ChangeNotificationHandle>(listed.handle.get()), listed.watch});
    return handles;
}

}  // namespace traiklofox::files
