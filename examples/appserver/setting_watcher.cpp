// setting_watcher.cpp: polls `RegNotifyChangeKeyValue`.
//
// A change signals nobody by itself: each call compares, and signals the event that it was given when the key
// has changed since the event last reported it. So the thread calls, then waits a little on that event and on
// the one that stops it, and calls again.

#include "setting_watcher.h"

#include "registry_key.h"

#include <traiklofox/events.h>
#include <traiklofox/threads.h>
#include <traiklofox/wait.h>

#include <cstdio>
#include <exception>
#include <utility>

namespace appserver {
namespace {

constexpr DWORD kPollMs = 20;
constexpr DWORD kStartMs = 30000;

OwnedHandle autoResetEvent() {
    return OwnedHandle(CreateEvent(/*attributes=*/nullptr, /*manualReset=*/FALSE, /*initialState=*/FALSE,
                                   /*name=*/nullptr));
}

/// Ties `changed` to the key, or signals it when it is tied and the key has changed.
void compare(const RegistryKey& key, Handle* changed) {
    const LONG result =
        RegNotifyChangeKeyValue(key.handle(), /*bWatchSubtree=*/FALSE, /*dwNotifyFilter=*/0, changed,
                                /*fAsynchronous=*/TRUE);
    if (result != ERROR_SUCCESS) throw RegistryError("cannot watch the key");
}

/// A tied event holds a reference to itself, which only the thread that tied it can drop.
class TiedEvent {
  public:
    TiedEvent() : event_(autoResetEvent()) {}
    ~TiedEvent() { static_cast<Event*>(event_.get())->SetEventData(-1); }
    Handle* get() const { return event_.get(); }

  private:
    OwnedHandle event_;
};

}  // namespace

SettingWatcher::SettingWatcher(std::string place, std::string name)
    : place_(std::move(place)),
      name_(std::move(name)),
      seen_(RegistryKey::open(place_).readNumber(name_)),
      watching_(autoResetEvent()),
      noticed_(autoResetEvent()),
      stop_(autoResetEvent()),
      thread_(CreateThread(/*attributes=*/nullptr, /*stackSize=*/0, run, this, /*flags=*/0,
                           /*threadId=*/nullptr)) {
    if (!thread_) throw std::runtime_error("cannot start the watching thread");
    Handle* either[] = {watching_.get(), thread_.get()};
    if (WaitForMultipleObjects(2, either, /*waitAll=*/FALSE, kStartMs) != WAIT_OBJECT_0) {
        SetEvent(stop_.get());
        WaitForSingleObject(thread_.get(), INFINITE);
        throw std::runtime_error("cannot watch " + name_);
    }
}

SettingWatcher::~SettingWatcher() {
    SetEvent(stop_.get());
    WaitForSingleObject(thread_.get(), INFINITE);
}

DWORD SettingWatcher::awaitChange(DWORD milliseconds) {
    if (WaitForSingleObject(noticed_.get(), milliseconds) != WAIT_OBJECT_0) {
        throw std::runtime_error("no change of " + name_ + " was noticed");
    }
    return seen_.load();
}

DWORD SettingWatcher::run(void* watcher) {
    try {
        static_cast<SettingWatcher*>(watcher)->watch();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "SettingWatcher: %s\n", error.what());
    }
    return 0;
}

void SettingWatcher::watch() {
    const RegistryKey key = RegistryKey::open(place_);
    const TiedEvent changed;
    Handle* either[] = {stop_.get(), changed.get()};
    compare(key, changed.get());
    SetEvent(watching_.get());
    for (;;) {
        compare(key, changed.get());
        const DWORD ended = WaitForMultipleObjects(2, either, /*waitAll=*/FALSE, kPollMs);
        if (ended == WAIT_OBJECT_0) return;
        if (ended != WAIT_OBJECT_0 + 1) continue;
        // The wait may have untied the event. It is tied again before the value is read, so that a change
        // after the reading is noticed, and one before it is read.
        compare(key, changed.get());
        const DWORD number = key.readNumber(name_);
        if (seen_.exchange(number) != number) SetEvent(noticed_.get());
    }
}

}  // namespace appserver
