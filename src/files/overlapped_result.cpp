// overlapped_result.cpp: fetching a directory's changes without a port.

#include <traiklofox/completion_ports.h>
#include <traiklofox/wait.h>

#include <cerrno>

#include "files/notification_state.h"
#include "foundation/mutex.h"
#include "kernel/handle_arguments.h"

using traiklofox::files::NotificationState;
using traiklofox::foundation::LockGuard;

namespace {

enum class Reading { None, Pending, Delivered };

/// What became of the request that `overlapped` (may be null) was given with.
Reading readingOf(NotificationState& state, const _OVERLAPPED* overlapped, DWORD& delivered) {
    const LockGuard guard(state);
    if (overlapped != nullptr && overlapped != state.overlapped) return Reading::None;
    delivered = state.lastDelivered;
    if (state.isReading) return Reading::Pending;
    return state.records != nullptr ? Reading::Delivered : Reading::None;
}

bool isHearsay(NotificationState& state) {
    const LockGuard guard(state);
    return state.isHearsay;
}

bool hasChanges(NotificationState& state) {
    const LockGuard guard(state);
    return state.records != nullptr && !state.records->empty();
}

}  // namespace

BOOL GetOverlappedResult(Handle* handle, _OVERLAPPED* overlapped, DWORD* bytes, BOOL wait) {
    auto* directory =
        traiklofox::kernel::handleAs<ChangeNotificationHandle>(handle, HANDLE_KIND_CHANGE_NOTIFICATION);
    if (directory == nullptr) {
        errno = EINVAL;
        return FALSE;
    }
    NotificationState& state = NotificationState::of(*directory);
    for (;;) {
        DWORD delivered = 0;
        const Reading reading = readingOf(state, overlapped, delivered);
        if (reading == Reading::None) {
            errno = EINVAL;
            return FALSE;
        }
        if (reading == Reading::Pending && state.claim() && !isHearsay(state) &&
            !directory->GetChangeData(&delivered, nullptr)) {
            directory->SetPending(1);
            return FALSE;  // ENOMEM
        }
        if (readingOf(state, overlapped, delivered) == Reading::Delivered) {
            if (bytes != nullptr) *bytes = delivered;
            return TRUE;
        }
        if (!wait) {
            errno = EINPROGRESS;
            return FALSE;
        }
        directory->Clear();  // it may have heard of others' changes
        if (hasChanges(state)) {
            directory->SetPending(1);
            continue;
        }
        (void)directory->WaitForHandle(INFINITE, /*alertable=*/FALSE);
    }
}
