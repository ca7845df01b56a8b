// change_notification_handle.cpp: the handle's waits, its signal, the delivery of its records, and its fields.
//
// The signal is a level: `pending` from the scan that finds a change, `state` from `Signal`, both until the change is
// taken notice of. The synchronisation event only wakes who waits; whoever withdraws the signal resets it and then
// looks once more, so that a signal that came meanwhile is there again.

#include <traiklofox/wait.h>

#include <cerrno>
#include <new>

#include "files/directory_data.h"
#include "files/notification_state.h"
#include "files/notify_records.h"
#include "foundation/mutex.h"
#include "foundation/on_exit.h"
#include "kernel/call_queue.h"
#include "kernel/mixed_wait.h"
#include "kernel/thread_life.h"

using traiklofox::files::CompletionCall;
using traiklofox::files::HandleRef;
using traiklofox::files::NotificationState;
using traiklofox::foundation::LockGuard;
using traiklofox::kernel::ThreadLife;

namespace {

/// Runs on the thread that asked.
void deliverToCaller(void* completionCall, void*, void*) {
    const std::unique_ptr<CompletionCall> mine(static_cast<CompletionCall*>(completionCall));
    NotificationState& state = NotificationState::of(*mine->handle);
    _OVERLAPPED* overlapped = nullptr;
    {
        const LockGuard guard(state);
        // Delivered meanwhile in another way; perhaps something else has been asked for since.
        if (state.isClosed() || !state.isReading || state.request != mine->request) return;
        overlapped = state.overlapped;
    }
    DWORD bytes = 0;
    if (mine->handle->GetChangeData(&bytes, nullptr)) mine->routine(/*error=*/0, bytes, overlapped);
}

void discard(void* completionCall) {
    delete static_cast<CompletionCall*>(completionCall);
}

}  // namespace

ChangeNotificationHandle::ChangeNotificationHandle(const char* path, BOOL watchSubtree, DWORD filter)
    : Handle(1), self(std::make_unique<NotificationState>(path, watchSubtree, filter)) {}

ChangeNotificationHandle::~ChangeNotificationHandle() {
    traiklofox::files::leaveWatch(*this);
}

DWORD ChangeNotificationHandle::What() const {
    return HANDLE_KIND_CHANGE_NOTIFICATION;
}

DWORD ChangeNotificationHandle::WaitForHandle(DWORD milliseconds, BOOL alertable) {
    if (GetPending()) return WAIT_OBJECT_0;
    if (milliseconds == 0) return WAIT_TIMEOUT;
    HandleRef<Handle> waited;
    {
        const LockGuard guard(*self);
        waited = HandleRef<Handle>(self->auxEvent.get());
    }
    if (waited) return waited->WaitForHandle(milliseconds, alertable);
    int signaled = 0;
    Event* event = GetSynch(signaled);
    return signaled ? WAIT_OBJECT_0 : event->WaitForHandle(milliseconds, alertable);
}

DWORD ChangeNotificationHandle::WaitForMultipleHandles(DWORD count, Handle** handles, BOOL waitAll,
                                                       DWORD milliseconds, BOOL alertable) {
    return traiklofox::kernel::waitMixed(count, handles, waitAll, milliseconds, alertable);
}

Event* ChangeNotificationHandle::GetSynch(int& signaled) {
    Event* event = synchEvent(/*manualReset=*/TRUE);
    signaled = self->isSignaled();
    if (signaled) return event;
    event->Reset();
    signaled = self->isSignaled();
    if (signaled) event->Set();
    return event;
}

BOOL ChangeNotificationHandle::Signal() {
    std::unique_ptr<CompletionCall> call;
    HandleRef<Thread> thread;
    const LockGuard guard(*self);
    self->state.store(1);
    if (self->auxEvent) self->auxEvent->Set();
    Handle::Signal();
    for (const HandleRef<Event>& event : self->portEvents) event->Set();
    if (self->isHearsay) return 1;  // nothing to deliver
    call = std::move(self->completion);
    if (call == nullptr) return 1;
    thread = std::move(call->thread);
    call->handle = HandleRef<ChangeNotificationHandle>(this);
    if (ThreadLife::queue(*thread, {deliverToCaller, call.get(), nullptr, nullptr, discard}))
        (void)call.release();  // the queue's now
    return 1;
}

BOOL ChangeNotificationHandle::State() const {
    return self->state.load();
}

BOOL ChangeNotificationHandle::GetChangeData(DWORD* bytes, ULONG_PTR* key) {
    if (bytes == nullptr || GetNotifyData() == nullptr) return 0;
    (void)FindCloseChangeNotification(this, /*keep=*/1);  // says nothing
    Clear();

    std::unique_ptr<CompletionCall> completion;  // let go without the lock
    const LockGuard guard(*self);
    if (self->records == nullptr) return 0;
    size_t room = self->bufferSize;
    auto* place = static_cast<std::byte*>(self->buffer);
    if (place == nullptr) {
        const size_t needed = traiklofox::files::sizeOfRecords(*self->records);
        if (self->ownBuffer == nullptr || room < needed) {
            room = std::max(room, needed);
            try {
                self->ownBuffer = std::make_unique<std::byte[]>(room);
            } catch (const std::bad_alloc&) {
                errno = ENOMEM;
                return 0;
            }
            self->bufferSize = static_cast<DWORD>(room);
        }
        place = self->ownBuffer.get();
    }
    *bytes = static_cast<DWORD>(traiklofox::files::takeRecords(*self->records, {place, room}));
    if (key != nullptr) *key = self->key;
    self->lastDelivered = *bytes;
    self->isReading = false;
    completion = std::move(self->completion);
    if (self->overlapped != nullptr) {
        self->overlapped->Internal = 0;
        self->overlapped->InternalHigh = *bytes;
    }
    return 1;
}

void ChangeNotificationHandle::Clear() {
    HandleRef<Handle> aux;
    {
        const LockGuard guard(*self);
        self->pending.store(0);
        self->changed = 0;
        self->state.store(0);
        self->isHearsay = false;
        aux = HandleRef<Handle>(self->auxEvent.get());
    }
    for (Handle* event : {aux.get(), static_cast<Handle*>(existingSynch())}) {
        if (event == nullptr) continue;
        event->Reset();
        if (self->isSignaled()) event->Set();
    }
}

void ChangeNotificationHandle::Lock() {
    self->lock();
}

void ChangeNotificationHandle::Unlock() {
    self->unlock();
}

CKZString ChangeNotificationHandle::GetPath() const {
    const LockGuard guard(*self);
    return self->path;
}

void ChangeNotificationHandle::SetPath(const CKZString& path) {
    const LockGuard guard(*self);
    self->path = path;
}

CKZString ChangeNotificationHandle::GetChangeString() const {
    const LockGuard guard(*self);
    return self->changeString;
}

void ChangeNotificationHandle::SetChangeString(const CKZString& directory) {
    const LockGuard guard(*self);
    self->changeString = directory;
}

BOOL ChangeNotificationHandle::GetPending() const {
    return self->pending.load();
}

void ChangeNotificationHandle::SetPending(BOOL pending) {
    self->pending.store(pending != 0);
}

BOOL ChangeNotificationHandle::GetChanged() const {
    const LockGuard guard(*self);
    return self->changed;
}

void ChangeNotificationHandle::SetChanged(BOOL changed) {
    const LockGuard guard(*self);
    self->changed = changed != 0;
}

BOOL ChangeNotificationHandle::GetWatchSubtree() const {
    const LockGuard guard(*self);
    return self->watchSubtree;
}

void ChangeNotificationHandle::SetWatchSubtree(BOOL watchSubtree) {
    const LockGuard guard(*self);
    self->watchSubtree = watchSubtree != 0;
}

DWORD ChangeNotificationHandle::GetFilter() const {
    const LockGuard guard(*self);
    return self->filter;
}

void ChangeNotificationHandle::SetFilter(DWORD filter) {
    const LockGuard guard(*self);
    self->filter = filter;
}

ULONG_PTR ChangeNotificationHandle::GetKey() const {
    const LockGuard guard(*self);
    return self->key;
}

void ChangeNotificationHandle::SetKey(ULONG_PTR key) {
    const LockGuard guard(*self);
    self->key = key;
}

void* ChangeNotificationHandle::GetBuffer() const {
    const LockGuard guard(*self);
    return self->buffer != nullptr ? self->buffer : self->ownBuffer.get();
}

void ChangeNotificationHandle::SetBuffer(void* buffer) {
    std::unique_ptr<std::byte[]> former;
    const LockGuard guard(*self);
    self->buffer = buffer;
    former = std::move(self->ownBuffer);
}

DWORD ChangeNotificationHandle::GetBufSize() const {
    const LockGuard guard(*self);
    return self->bufferSize;
}

void ChangeNotificationHandle::SetBufSize(DWORD size) {
    const LockGuard guard(*self);
    self->bufferSize = size;
    if (self->buffer == nullptr) self->ownBuffer.reset();
}

NotifyRecords* ChangeNotificationHandle::GetNotifyData() const {
    const LockGuard guard(*self);
    return self->records.get();
}

void ChangeNotificationHandle::SetNotifyData(NotifyRecords* records) {
    const LockGuard guard(*self);
    self->records.reset(records);
}

Handle* ChangeNotificationHandle::GetAuxEvent() const {
    const LockGuard guard(*self);
    return self->auxEvent.get();
}

void ChangeNotificationHandle::SetAuxEvent(Handle* event) {
    HandleRef<Handle> exchanged(event);  // let go without the lock
    const LockGuard guard(*self);
    std::swap(self->auxEvent, exchanged);
}
