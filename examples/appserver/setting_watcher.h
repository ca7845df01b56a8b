#pragma once

// setting_watcher.h: a thread that notices when a setting is changed, by whichever process.

#include "owned_handle.h"

#include <atomic>
#include <string>

namespace appserver {

class SettingWatcher {
  public:
    /// Starts the thread and returns once it would notice a change. Throws when the key or the value is
    /// missing.
    SettingWatcher(std::string place, std::string name);
    SettingWatcher(const SettingWatcher&) = delete;
    SettingWatcher& operator=(const SettingWatcher&) = delete;
    /// Stops the thread and waits for its end.
    ~SettingWatcher();

    /// Waits until the thread has noticed a change that was not reported yet. Returns what it read, or throws
    /// after `milliseconds`.
    DWORD awaitChange(DWORD milliseconds);

  private:
    static DWORD run(void* watcher);
    void watch();

    const std::string place_;
    const std::string name_;
    std::atomic<DWORD> seen_;
    OwnedHandle watching_;  // events: the thread is at work, it has read a new number, it is to stop
    OwnedHandle noticed_;
    OwnedHandle stop_;
    OwnedHandle thread_;
};

}  // namespace appserver
