#pragma once

// helper_supervisor.h: keeps one helper process running for as long as the object lives.

#include "owned_handle.h"

#include <atomic>
#include <string>

namespace appserver {

class HelperSupervisor {
  public:
    /// Starts a helper, and the thread that starts another whenever one ends.
    HelperSupervisor();
    HelperSupervisor(const HelperSupervisor&) = delete;
    HelperSupervisor& operator=(const HelperSupervisor&) = delete;
    /// Lets the helper go and waits for its end.
    ~HelperSupervisor();

    /// The process id of the helper that runs.
    DWORD helper() const { return helperId_.load(); }
    /// Waits until a helper has ended and another runs. Returns the exit code of the one that ended, or throws
    /// after `milliseconds`.
    DWORD awaitRestart(DWORD milliseconds);
    /// Lets the helper go. Returns its exit code.
    DWORD finish();

  private:
    static DWORD run(void* supervisor);
    void watch();
    void start();
    void letGo();
    DWORD exitCode() const;

    OwnedHandle input_;   // the helper's standard input, at this end
    OwnedHandle helper_;  // after the thread's start its own, until it has ended
    std::atomic<DWORD> helperId_;
    std::atomic<DWORD> lastCode_;
    OwnedHandle restarted_;  // events: a helper has ended and another runs, the thread is to stop
    OwnedHandle stop_;
    OwnedHandle thread_;
};

}  // namespace appserver
