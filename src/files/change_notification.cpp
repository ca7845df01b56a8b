// change_notification.cpp: the exported calls by which handles come to be watched, and cease to be.

#include <traiklofox/change_notification.h>

#include <cerrno>
#include <new>

#include "files/directory_data.h"
#include "files/directory_handle.h"
#include "files/notification_state.h"
#include "files/watch_list.h"
#include "foundation/mutex.h"
#include "kernel/handle_arguments.h"
#include "kernel/hooks.h"

using traiklofox::files::CompletionCall;
using traiklofox::files::HandleRef;
using traiklofox::files::NotificationState;
using traiklofox::foundation::LockGuard;

namespace {

ChangeNotificationHandle* changeNotification(Handle* handle) {
    auto* found =
        traiklofox::kernel::handleAs<ChangeNotificationHandle>(handle, HANDLE_KIND_CHANGE_NOTIFICATION);
    if (found == nullptr) errno = EINVAL;
    return found;
}

/// What `ReadDirectoryChanges` was asked.
struct ReadRequest {
    void* buffer;
    DWORD size;
    BOOL watchSubtree;
    DWORD filter;
    _OVERLAPPED* overlapped;
    LPOVERLAPPED_COMPLETION_ROUTINE routine;
};

/// Sets the handle up, in one step: another thread may be delivering to the former request's buffer.
void prepareReading(ChangeNotificationHandle& handle, const ReadRequest& request) {
    NotificationState& state = NotificationState::of(handle);
    auto records = std::make_unique<NotifyRecords>();
    std::unique_ptr<CompletionCall> completion;
    if (request.routine != nullptr)
        completion = std::make_unique<CompletionCall>(CompletionCall{
            request.routine, HandleRef<Thread>(static_cast<Thread*>(GetCurrentThread())), {}, 0});
    HandleRef<Handle> auxEvent;  // what is replaced is let go without the lock
    std::unique_ptr<std::byte[]> ownBuffer;
    const LockGuard guard(state);
    const bool keepsOwnBuffer = request.buffer == nullptr && state.buffer == nullptr &&
                                state.ownBuffer != nullptr && state.bufferSize >= request.size;
    if (!keepsOwnBuffer) {
        state.buffer = request.buffer;
        state.bufferSize = request.size;
        ownBuffer = std::move(state.ownBuffer);
    }
    if (request.overlapped != nullptr) {
        Handle* event = request.overlapped->hEvent;
        if (!traiklofox::kernel::isNone(event)) {
            event->Reset();
            auxEvent = HandleRef<Handle>(event);
        }
        std::swap(state.auxEvent, auxEvent);
        request.overlapped->Internal = STATUS_PENDING;
        request.overlapped->InternalHigh = 0;
    }
    state.watchSubtree = request.watchSubtree != 0;
    state.filter = request.filter;
    state.overlapped = request.overlapped;
    if (request.overlapped != nullptr && state.key == 0)
        state.key = reinterpret_cast<ULONG_PTR>(request.overlapped->Pointer);
    ++state.request;
    if (completion != nullptr) completion->request = state.request;
    std::swap(state.completion, completion);
    state.isReading = true;
    if (state.records == nullptr) state.records = std::move(records);
}

/// Signals a handle that has records already. A scan that finds more from now on does so itself.
void signalLeftOver(ChangeNotificationHandle& handle) {
    NotificationState& state = NotificationState::of(handle);
    const LockGuard guard(state);
    if (state.records == nullptr || state.records->empty()) return;
    state.isHearsay = false;
    state.pending.store(1);
    handle.Signal();
}

/// The last owner has closed the handle: nothing is delivered any more, and nobody waits for it.
void abandon(ChangeNotificationHandle& handle) {
    const HandleRef<ChangeNotificationHandle> listed = traiklofox::files::unlistHandle(&handle);
    traiklofox::files::leaveWatch(handle);
    std::unique_ptr<CompletionCall> completion;
    NotificationState& state = NotificationState::of(handle);
    const LockGuard guard(state);
    state.buffer = nullptr;
    state.bufferSize = 0;
    state.overlapped = nullptr;
    state.isReading = false;
    state.pending.store(0);
    state.state.store(0);
    completion = std::move(state.completion);
}

}  // namespace

void traiklofox::kernel::noteDuplicated(Handle& changeNotification) {
    ++NotificationState::of(static_cast<ChangeNotificationHandle&>(changeNotification)).owners;
}

void traiklofox::kernel::noteClosing(Handle& changeNotification) {
    auto& handle = static_cast<ChangeNotificationHandle&>(changeNotification);
    if (--NotificationState::of(handle).owners == 0) abandon(handle);
}

Handle* traiklofox::files::openChangeNotification(const char* path) {
    try {
        return new ChangeNotificationHandle(path, /*watchSubtree=*/FALSE, /*filter=*/0);
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return nullptr;
    }
}

void WatchDir(const CKZString& path, ChangeNotificationHandle* handle) {
    if (handle == nullptr)
        (void)traiklofox::files::pinnedWatch(path);
    else
        traiklofox::files::listHandle(*handle, traiklofox::files::joinWatch(path, *handle));
}

Handle* FindFirstChangeNotification(const char* path, BOOL watchSubtree, DWORD filter) {
    if (path == nullptr) {
        errno = EINVAL;
        return INVALID_HANDLE_VALUE;
    }
    try {
        auto handle = HandleRef<ChangeNotificationHandle>::adopt(
            new ChangeNotificationHandle(path, watchSubtree, filter));
        WatchDir(path, handle.get());
        return handle.release();
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return INVALID_HANDLE_VALUE;
    }
}

BOOL FindNextChangeNotification(Handle* handle) {
    ChangeNotificationHandle* notification = changeNotification(handle);
    if (notification == nullptr) return FALSE;
    try {
        notification->Clear();
        WatchDir(notification->GetPath(), notification);
        return TRUE;
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return FALSE;
    }
}

BOOL FindCloseChangeNotification(Handle* handle, int keep) {
    const HandleRef<ChangeNotificationHandle> listed = traiklofox::files::unlistHandle(handle);
    if (!listed) return 0;
    traiklofox::files::awaitScan(*listed);
    listed->Clear();
    if (keep != 1) CloseHandle(handle);
    return 0;
}

BOOL ReadDirectoryChanges(Handle* handle, void* buffer, DWORD size, BOOL watchSubtree, DWORD filter,
                          DWORD* bytes, _OVERLAPPED* overlapped,
                          LPOVERLAPPED_COMPLETION_ROUTINE completionRoutine) {
    ChangeNotificationHandle* notification = changeNotification(handle);
    if (notification == nullptr) return FALSE;
    if (bytes != nullptr) *bytes = 0;
    try {
        prepareReading(*notification, {.buffer = buffer,
                                       .size = size,
                                       .watchSubtree = watchSubtree,
                                       .filter = filter,
                                       .overlapped = overlapped,
                                       .routine = completionRoutine});
        WatchDir(notification->GetPath(), notification);
        signalLeftOver(*notification);
        return TRUE;
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return FALSE;
    }
}
