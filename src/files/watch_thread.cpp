// watch_thread.cpp: the scanner: one pass after another over all watched directories.
//
// A pass goes over counted references to the handles, without the list's lock: a callback may close handles, its own
// scan's too. Whether the scanner still has a handle is looked at with the handle's lock held for as long as it takes
// to signal it; so a handle that has been taken from the scanner is not signalled any more.

#include <traiklofox/change_notification.h>
#include <traiklofox/clocks.h>

#include <algorithm>
#include <cstdio>
#include <new>

#include "files/directory_scan.h"
#include "files/notification_state.h"
#include "files/watch_list.h"
#include "files/watch_text.h"
#include "foundation/mutex.h"
#include "foundation/sys.h"

using traiklofox::files::NotificationState;
using traiklofox::files::WatchedHandle;
using traiklofox::foundation::LockGuard;

namespace {

constexpr ULONGLONG kLeastScanMs = 2000;
constexpr ULONGLONG kLongestSleepMs = 30000;

// True when the flag was set by a scanner that ended, not by the application.
constinit std::atomic<bool> flagIsOurs{false};

/// Handles of one path stand together, and are scanned for together.
void scanAll(const std::vector<WatchedHandle>& handles, bool (*deviceTest)(ULONGLONG device)) {
    const traiklofox::files::DirectoryWatch* previous = nullptr;
    for (const WatchedHandle& watched : handles) {
        if (watched.watch.get() == previous) continue;
        previous = watched.watch.get();
        traiklofox::files::scanWatch(*watched.watch, /*extra=*/nullptr, deviceTest);
    }
}

/// Signals a handle with a pending change; true when it was.
bool signalPending(ChangeNotificationHandle& handle, CKZString& changeString) {
    CKZString shown;
    NotificationState& state = NotificationState::of(handle);
    const LockGuard guard(state);
    if (!state.isListed || state.pending.load() == 0) return false;
    std::fputs(traiklofox::files::textOf(handle, "Abt2Signal:").c_str(), stderr);
    handle.Signal();
    changeString = state.changeString;
    return true;
}

/// Another handle of that path hears of it, too, if it has not heard of anything yet.
void signalOther(ChangeNotificationHandle& handle, const CKZString& changeString) {
    NotificationState& state = NotificationState::of(handle);
    const LockGuard guard(state);
    if (!state.isListed || state.state.load() != 0) return;
    state.notePending(changeString);
    state.isHearsay = state.records != nullptr && state.records->empty();
    handle.Signal();
}

void signalAll(const std::vector<WatchedHandle>& handles) {
    for (auto first = handles.begin(); first != handles.end();) {
        const auto last = std::find_if(
            first, handles.end(), [&](const WatchedHandle& other) { return other.watch != first->watch; });
        CKZString changeString;
        bool isAny = false;
        for (auto one = first; one != last; ++one) isAny |= signalPending(*one->handle, changeString);
        if (isAny)
            for (auto one = first; one != last; ++one) signalOther(*one->handle, changeString);
        first = last;
    }
}

/// By a clock that nobody sets.
ULONGLONG monotonicMs() {
    const timespec now = traiklofox::sys::monotonic();
    return static_cast<ULONGLONG>(now.tv_sec) * 1000 + static_cast<ULONGLONG>(now.tv_nsec) / 1'000'000;
}

/// Returns how long it took, in milliseconds.
ULONGLONG scanOnce(bool (*deviceTest)(ULONGLONG device)) {
    const ULONGLONG start = monotonicMs();
    ULONGLONG elapsed = 0;
    try {
        const std::vector<WatchedHandle> handles = traiklofox::files::listedHandles();
        scanAll(handles, deviceTest);
        elapsed = monotonicMs() - start;
        signalAll(handles);
    } catch (const std::bad_alloc&) {
        elapsed = monotonicMs() - start;  // what was missed is found by the next one
    }
    return elapsed;
}

DWORD sleepAfter(ULONGLONG elapsedMs) {
    const ULONGLONG wanted = std::max(elapsedMs, kLeastScanMs) * 2;
    const ULONGLONG bounded = wanted > kLongestSleepMs ? std::max(elapsedMs, kLongestSleepMs) : wanted;
    return static_cast<DWORD>(std::min<ULONGLONG>(bounded, INFINITE - 1));
}

bool shutdownIsRequested() {
    return bFileShutdownRequested;
}

WatchDirsCallbacks completed(const void* callbacks) {
    WatchDirsCallbacks all{};
    if (callbacks != nullptr) all = *static_cast<const WatchDirsCallbacks*>(callbacks);
    if (all.sleep == nullptr) all.sleep = Sleep;
    if (all.stop == nullptr) all.stop = shutdownIsRequested;
    return all;
}

}  // namespace

DWORD WatchDirsThread(void* callbacks) {
    const WatchDirsCallbacks given = completed(callbacks);
    if (flagIsOurs.exchange(false)) bFileShutdownRequested = false;
    while (!given.stop()) given.sleep(sleepAfter(scanOnce(given.deviceTest)));
    flagIsOurs = !bFileShutdownRequested.exchange(true);
    return given.onExit != nullptr ? given.onExit() : 0;
}
