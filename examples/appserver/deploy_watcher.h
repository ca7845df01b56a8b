#pragma once

// deploy_watcher.h: notices files that are dropped into a directory.

#include "owned_handle.h"

#include <traiklofox/change_notification.h>

#include <array>
#include <deque>
#include <string>

namespace appserver {

/// One at a time: the scanner's callbacks know of no other.
class DeployWatcher {
  public:
    /// Starts the scanner. What is in the directory already counts as dropped. Throws when it cannot.
    explicit DeployWatcher(const std::string& directory);
    DeployWatcher(const DeployWatcher&) = delete;
    DeployWatcher& operator=(const DeployWatcher&) = delete;
    /// Stops the scanner and waits for its end.
    ~DeployWatcher();

    struct Change {
        DWORD action;
        std::string name;
        DWORD size;
    };
    /// Waits for the next change, or throws after `milliseconds`.
    Change awaitChange(DWORD milliseconds);

  private:
    void ask();
    void fetch(DWORD milliseconds);

    std::array<char, 8192> buffer_;
    OVERLAPPED overlapped_;
    std::deque<Change> changes_;
    OwnedHandle directory_;
    OwnedHandle port_;
    OwnedHandle scanner_;
};

}  // namespace appserver
