// wait.cpp: the wait functions, and how a wait on handles of several kinds becomes a wait on events.

#include <traiklofox/events.h>
#include <traiklofox/wait.h>

#include <array>
#include <typeinfo>

#include "kernel/handle_arguments.h"
#include "kernel/mixed_wait.h"

using traiklofox::kernel::isNone;
using traiklofox::kernel::waitMixed;

namespace {

/// The first entry that is a handle; null when there is none.
Handle* firstOf(DWORD count, Handle** handles) {
    for (DWORD i = 0; i < count; ++i)
        if (!isNone(handles[i])) return handles[i];
    return nullptr;
}

/// The first entry from `from` on whose class is not `known`; `count` when there is none.
DWORD findOtherClass(const std::type_info& known, DWORD from, DWORD count, Handle** handles) {
    while (from < count && (isNone(handles[from]) || &typeid(*handles[from]) == &known)) ++from;
    return from;
}

/// Handles of one class are of one kind, and to read an object's class takes two loads; so only another class is
/// asked for its kind, in a virtual call.
bool allOfKind(const Handle& first, DWORD count, Handle** handles) {
    const std::type_info& known = typeid(first);
    for (DWORD i = 0; (i = findOtherClass(known, i, count, handles)) < count; ++i)
        if (handles[i]->What() != first.What()) return false;
    return true;
}

}  // namespace

DWORD traiklofox::kernel::waitMixed(DWORD count, Handle** handles, BOOL waitAll, DWORD milliseconds,
                                    BOOL alertable) {
    if (count > MAXIMUM_WAIT_OBJECTS) return WAIT_FAILED;
    std::array<Handle*, MAXIMUM_WAIT_OBJECTS> synchs{};
    Handle* target = nullptr;
    for (DWORD i = 0; i < count; ++i) {
        if (isNone(handles[i])) continue;
        int signaled = 0;
        synchs[i] = handles[i]->GetSynch(signaled);
        if (synchs[i] == nullptr) return WAIT_FAILED;
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
    if (!allOfKind(*first, count, handles))
        return waitMixed(count, handles, waitAll, milliseconds, alertable);
    return first->WaitForMultipleHandles(count, handles, waitAll, milliseconds, alertable);
}

DWORD WaitForMultipleObjects(DWORD count, Handle** handles, BOOL waitAll, DWORD milliseconds) {
    return WaitForMultipleObjectsEx(count, handles, waitAll, milliseconds, /*alertable=*/FALSE);
}
