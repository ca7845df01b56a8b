// handle.cpp: reference counting, closing and duplicating, and the base's answer to every virtual operation.

#include <traiklofox/events.h>
#include <traiklofox/handle.h>

#include <sys/types.h>
#include <unistd.h>

#include <utility>

#include "foundation/sys.h"
#include "kernel/handle_arguments.h"
#include "kernel/hooks.h"

using traiklofox::kernel::isNone;

Handle::Handle(LONG references) : synch(nullptr), refCount(references) {}

Handle::~Handle() {
    if (Event* event = existingSynch()) event->DecRefCount();
}

DWORD Handle::What() const {
    return HANDLE_KIND_HANDLE;
}

DWORD Handle::WaitForHandle(DWORD, BOOL) {
    return 0;
}

DWORD Handle::WaitForMultipleHandles(DWORD, Handle**, BOOL, DWORD, BOOL) {
    return 0;
}

BOOL Handle::Set() {
    return 0;
}

BOOL Handle::Reset() {
    Event* event = existingSynch();
    if (event == nullptr) return 0;
    event->Reset();
    return 1;
}

BOOL Handle::Pulse() {
    return 0;
}

Event* Handle::GetSynch(int& signaled) {
    Event* event = existingSynch();
    signaled = event != nullptr && event->consume();
    return event != nullptr ? event : synchEvent(/*manualReset=*/FALSE);
}

void Handle::FreeSynch() {}

BOOL Handle::Signal() {
    Event* event = existingSynch();
    return event != nullptr ? event->Set() : 0;
}

LONG Handle::IncRefCount() {
    return refCount.fetch_add(1, std::memory_order_relaxed) + 1;
}

LONG Handle::DecRefCount() {
    const LONG left = refCount.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (left == 0) delete this;
    return left;
}

Event* Handle::synchEvent(BOOL manualReset) {
    if (Event* event = existingSynch()) return event;
    Event* made = new Event(/*initialData=*/-1, manualReset, /*initialState=*/FALSE, nullptr);
    Event* present = nullptr;
    if (synch.compare_exchange_strong(present, made)) return made;
    made->DecRefCount();  // another thread was first
    return present;
}

File::File(int descriptor) : Handle(1), fd(descriptor) {}

File::~File() {
    if (fd != -1) (void)traiklofox::sys::close(fd);  // a destructor has nobody to tell
}

DWORD File::What() const {
    return HANDLE_KIND_FILE;
}

SecurityToken::SecurityToken(UINT asUser, UINT asGroup)
    : Handle(1), uid(asUser), savedUid(getuid()), gid(asGroup), savedGid(getgid()) {}

SecurityToken::~SecurityToken() = default;

DWORD SecurityToken::What() const {
    return HANDLE_KIND_SECURITY_TOKEN;
}

UINT SecurityToken::SetUid(UINT newUid) {
    return std::exchange(uid, newUid);
}

UINT SecurityToken::SetGid(UINT newGid) {
    return std::exchange(gid, newGid);
}

BOOL SecurityToken::InvokeSecurityToken() {
    return setgid(gid) == 0 && setuid(uid) == 0;
}

BOOL HandleClose(Handle* handle) {
    if (isNone(handle)) return 0;
    if (handle->What() == HANDLE_KIND_CHANGE_NOTIFICATION) traiklofox::kernel::noteClosing(*handle);
    handle->DecRefCount();
    return 1;
}

BOOL CloseHandle(Handle* handle) {
    return HandleClose(handle);
}

BOOL DuplicateHandle(Handle*, Handle* source, Handle*, Handle** target, DWORD, BOOL, DWORD) {
    if (isNone(source)) return 0;
    source->IncRefCount();
    if (source->What() == HANDLE_KIND_CHANGE_NOTIFICATION) traiklofox::kernel::noteDuplicated(*source);
    if (target != nullptr) *target = source;
    return 1;
}
