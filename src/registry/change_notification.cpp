// change_notification.cpp: telling a thread that a key has changed, when it asks.

#include "registry/change_notification.h"

#include <traiklofox/events.h>
#include <traiklofox/registry.h>
#include <traiklofox/threads.h>
#include <traiklofox/wait.h>

#include "foundation/on_exit.h"
#include "kernel/handle_arguments.h"
#include "kernel/hooks.h"
#include "registry/key_numbers.h"
#include "registry/open_keys.h"
#include "registry/registry_call.h"

namespace traiklofox::registry {

namespace {

// How often a synchronous call looks for a change: nothing else would end it.
constexpr DWORD kLookAgainMs = 1000;

bool isOf(HKEY handle, LONG data) {
    return data != -1 && (data & kNumberMask) == (handle & kNumberMask);
}

/// Signals the event when the key has changed since the event last reported it, else ties the event to the
/// key. A first tie counts changes from now on; a later one from the last report, so that none is missed in
/// between.
LONG reportOrTie(RegKey& key, HKEY handle, Event& event, BOOL tied) TRAIKLOFOX_REQUIRES(key.lock) {
    const auto count = static_cast<DWORD>(key.changeCount.load(std::memory_order_acquire));
    const bool known = isOf(handle, event.GetLastData());
    if (tied && count != 0 && count > event.GetLastRev()) {
        event.RevStamp(count, /*copyData=*/TRUE);
        event.Set();
        return ERROR_SUCCESS;
    }
    if (tied) return ERROR_SUCCESS;
    if (!event.SetEventData(handle)) return kRegistryFailure;
    if (!known) event.RevStamp(count, /*copyData=*/TRUE);
    return ERROR_SUCCESS;
}

LONG lookOnce(HKEY handle, Event& event) {
    (void)bringTreeUpToDate();
    return onOpenKey(handle, [&](RegKey& key) TRAIKLOFOX_REQUIRES(key.lock) {
        return reportOrTie(key, handle, event, isOf(handle, event.GetEventData()));
    });
}

Event& threadsOwnEvent() {
    ThreadContext& context = *GetThreadContext();
    if (context.notification == nullptr)
        context.notification =
            new Event(/*initialData=*/-1, /*resetsManually=*/FALSE, /*initialState=*/FALSE, nullptr);
    return *context.notification;
}

/// Waits until the thread's own event is signalled, by a change that this looks for or by somebody else. The tie
/// ends with the call, or the event would outlive its thread.
LONG waitForChange(HKEY handle, Event& event) {
    const auto untie = foundation::onExit([&] { (void)event.SetEventData(-1); });
    for (;;) {
        Handle* waited = &event;
        const DWORD result =
            WaitForMultipleObjectsEx(1, &waited, /*waitAll=*/FALSE, kLookAgainMs, /*alertable=*/FALSE);
        if (result != WAIT_TIMEOUT) return static_cast<LONG>(result);
        const LONG looked = lookOnce(handle, event);
        if (looked != ERROR_SUCCESS) return looked;
    }
}

}  // namespace

void wakeWatchers(RegKey& key) {
    (void)RegKeyWakeup(&key);
    if (key.parent() != nullptr) (void)RegKeyWakeup(key.parent());
}

}  // namespace traiklofox::registry

using namespace traiklofox::registry;

void traiklofox::kernel::withdrawRegistryNotification(LONG keyHandle, Event* event) {
    (void)RegUnnotifyChangeKeyValue(keyHandle, event);
}

LONG RegNotifyChangeKeyValue(HKEY hKey, BOOL, DWORD, Handle* hEvent, BOOL fAsynchronous) {
    return registryCall([&]() -> LONG {
        const bool own = hEvent == nullptr;
        auto* event =
            own ? &threadsOwnEvent() : traiklofox::kernel::handleAs<Event>(hEvent, HANDLE_KIND_EVENT);
        if (event == nullptr) return kRegistryFailure;
        const LONG looked = lookOnce(hKey, *event);
        if (looked != ERROR_SUCCESS || fAsynchronous || !own) return looked;
        return waitForChange(hKey, *event);
    });
}

LONG RegUnnotifyChangeKeyValue(HKEY hKey, Event*) {
    const KeyRef key = keyOf(hKey);
    return key && !key->isDead() ? ERROR_SUCCESS : kRegistryFailure;
}

int RegKeyWakeup(RegKey*) {
    return 0;
}

int RegKeyWakeup(std::vector<RegKey*>*) {
    return 0;
}

void RegWatchFile(DWORD, int (*)(void*), void*) {}

void DumpRegistryCache() {}
