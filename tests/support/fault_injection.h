#pragma once

// Makes the C library fail. The tested code is linked so that its calls of the functions listed here pass
// through rules that a test sets: the n-th matching call fails with an error number of the test's choice, or
// transfers less than it was asked to. Calls that the C library or libstdc++ make inside themselves (the
// `write` under `fwrite`) do not pass through, so GoogleTest's own output is safe from them.
//
//     FailCall full{faults::Call::Write, ENOSPC, /*onCall=*/2};
//
// Rules hold for all threads of the process, and in children that it forks; not in processes it executes.
// Making and ending rules is for one thread at a time.

#include <limits.h>

#include <functional>
#include <string_view>

namespace traiklofox::test {

namespace faults {

// clang-format off
enum class Call {
    // With a path, or two:
    Open, Stat, Lstat, Access, Chmod, Chown, Mkdir, Rmdir, Rename, Link, Unlink, Readlink, Opendir, Chdir,
    // With a descriptor:
    Close, Read, Write, Lseek, Ftruncate, Fdatasync, Fsync, Lockf, Flock, Fstat, Fchmod, Fchown, Readdir, Closedir,
    Mmap,
    // With neither:
    Semget, Semop, Semctl, Shmget, Shmctl, Shmat, Munmap, Malloc, PthreadCreate, Fork, Pipe2, Kill, Nanosleep,
    Getrandom, PidfdOpen, PosixSpawn, CloseRange, Gethostid,
};
constexpr int kCallKinds = static_cast<int>(Call::Gethostid) + 1;

/// In place of an error number: the call does not return.
constexpr int kHangs = -1;
// clang-format on

/// Which calls a rule is about, and what becomes of them.
struct Options {
    int onCall = 1;               ///< the first matching call that fails, counted from 1
    bool andAllLater = false;     ///< every later one fails, too
    std::string_view path = {};   ///< matches only where this is part of the call's or descriptor's path
    bool thisThreadOnly = false;  ///< matches only calls of the thread that made the rule
    /// Read and Write: the call numbered `onCall` transfers at most so many bytes and succeeds; with
    /// `andAllLater` the later ones fail with the error (a disk that runs full), otherwise they go on as
    /// usual.
    size_t transferAtMost = SIZE_MAX;
};

}  // namespace faults

/// While it lives, the call that it names fails. A failing call does nothing, except that one that closes has
/// closed all the same, as on Linux.
class FailCall {
  public:
    FailCall(faults::Call call, int error, int onCall = 1);
    FailCall(faults::Call call, int error, const faults::Options& options);
    FailCall(const FailCall&) = delete;
    FailCall& operator=(const FailCall&) = delete;
    ~FailCall();

    /// Matching calls since the rule was made, the failed ones included.
    int calls() const;
    /// How many of them failed or were cut short.
    int fired() const;

  private:
    int slot_;
};

/// Counts the calls and lets them pass.
class CountCalls {
  public:
    explicit CountCalls(faults::Call call, const faults::Options& options = {});
    int calls() const { return rule_.calls(); }

  private:
    FailCall rule_;
};

/// While it lives, the process kills itself with SIGKILL at its n-th call of whatever kind (malloc is not
/// counted), before the call or when it has been made.
class KillAtCall {
  public:
    enum class Moment { Before, After };
    KillAtCall(Moment moment, int onCall);
    KillAtCall(const KillAtCall&) = delete;
    KillAtCall& operator=(const KillAtCall&) = delete;
    ~KillAtCall();

  private:
    int slot_;
};

/// Runs `body` with the first matching call failing, then with the second, and so on, until a run in which
/// none failed because there were fewer; returns the number of runs with a fault. `body` learns which call
/// was to fail, and whether it did from the rule. Reports a test failure when `limit` runs did not suffice.
int failEveryCall(faults::Call call, int error,
                  const std::function<void(const FailCall& fault, int onCall)>& body,
                  faults::Options options = {}, int limit = 1000);

/// Controls what the tested code reads from `time`, `gettimeofday` and `clock_gettime(CLOCK_REALTIME)`. Sleeps and
/// waits go by real time; so does the monotonic clock unless it is stopped. One at a time.
class FakeTime {
  public:
    FakeTime() = default;
    FakeTime(const FakeTime&) = delete;
    FakeTime& operator=(const FakeTime&) = delete;
    ~FakeTime();

    /// The wall clock stands still at this time since the Unix epoch.
    void stopAt(long long seconds, long nanoseconds = 0);
    /// The wall clock runs, so much ahead of the real one (behind, when negative).
    void runAhead(long long seconds, long nanoseconds = 0);
    /// Moves the wall clock, stopped or running, by so much from where it is.
    void advance(long long seconds, long nanoseconds = 0);
    /// The monotonic clock stands still at this time.
    void stopMonotonicAt(long long seconds);
};

}  // namespace traiklofox::test
