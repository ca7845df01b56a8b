// wait.cpp: the wait functions, and how a wait on handles of several kinds becomes a wait on events.

#include <traiklofox/events.h>
#include <traiklofox/wait.h>

#include <array>

#include "kernel/handle_arguments.h"

using traiklofox::kernel::isNone;

namespace {

/// The first entry that is a handle; null when there is none.
Handle* firstOf(DWORD count, Handle** handles) {
    for (DWORD i = 0; i < count; ++i)
        if (!isNone(handles[i])) return handles[i];
    return nullptr;
}

bool allOfKind(DWORD kind, DWORD count, Handle** handles) {
    for (DWORD i = 0; i < count; ++i)
        if (!isNone(handles[i]) && handles[i]->What() != kind) return false;
    return true;
}

DWORD waitMixed(DWORD count, Handle** handles, BOOL waitAll, DWORD milliseconds, BOOL alertable) {
    if (count > MAXIMUM_WAIT_OBJECTS) return WAIT_FAILED;
    std::array<Handle*, MAXIMUM_WAIT_OBJECTS> synchs{};
    Handle* target = nullptr;
    for (DWORD i = 0; i < count; ++i) {
        if (isNone(handles[i])) continue;
        int signaled = 0;
        synchs[i] = handles[i]->GetSynch(signaled);
        if (target == nullptr) target = synchs[i];
        if (!signaled) continue;
        for (DWORD j = i + 1; j-- > 0;)
            if (synchs[j] != nullptr) synchs[j]->FreeSynch();
        return i;
    }
    const DWORD result =
        target->WaitForMultipleHandles(count, synchs.data(), waitAll, milliseconds, alertable);
    for (DWORD i = 0; i < count; ++i)
        if (synchs[i] != nullptr) synchs[i]->FreeSynch();
    return result;
}

}  // namespace

DWORD WaitForSingleObjectEx(Handle* handle, DWORD milliseconds, BOOL alertable) {
    return isNone(handle) ? WAIT_FAILED : handle->WaitForHandle(milliseconds, alertable);
}

DWORD WaitForSingleObject(Handle* handle, DWORD milliseconds) {
    return WaitForSingleObjectEx(handle, milliseconds, /*alertable=*/FALSE);
}

DWORD WaitForMultipleObjectsEx(DWORD count, Handle** handles, BOOL waitAll, DWORD milliseconds,
                               BOOL alertable) {
    if (count == 0 || handles == nullptr) return WAIT_FAILED;
    Handle* first = firstOf(count, handles);
    if (first == nullptr) return WAIT_FAILED;
    if (!allOfKind(first->What(), count, handles))
        return waitMixed(count, handles, waitAll, milliseconds, alertable);
    return first->WaitForMultipleHandles(count, handles, waitAll, milliseconds, alertable);
}

DWORD WaitForMultipleObjects(DWORD count, Handle** handles, BOOL waitAll, DWORD milliseconds) {
    return WaitForMultipleObjectsEx(count, handles, waitAll, milliseconds, /*alertable=*/FALSE);
}
