#pragma once

/// Processes: starting them, waiting for their end, and their exit codes.
///
/// A child that the library started is the library's to collect once a handle has named it: its exit code is
/// kept while any handle names the process, and when the last is closed the child is collected, at once or when
/// it ends. A child that the application forked itself is collected by `GetExitCodeProcess` alone.

#include <traiklofox/handle.h>

#include <memory>

namespace traiklofox::kernel {
struct ChildRecord;
class ProcessLife;
}  // namespace traiklofox::kernel

/// How far a process's end is known.
enum ProcState_t : int {
    PROCESS_RUNNING = 0,  ///< no wait has seen it end
    PROCESS_EXITED = 1,   ///< a wait has seen it end
    PROCESS_REAPED = 2,   ///< `GetExitCodeProcess` has its exit code
};

/// A process, a child of this one or not. Signalled, for every waiter and for ever, once it has ended.
///
/// Waits neither stop the process nor need any right over it; they take its end as a fact to look at and leave
/// the exit code to `GetExitCodeProcess`. A handle keeps one descriptor from its first wait on; when there is
/// none to be had, or the kernel cannot watch a process by one, waits look every few milliseconds.
class TRAIKLOFOX_API Process : public Handle {
  public:
    /// Names the process with this id, whether there is one or not.
    explicit Process(int processId);
    /// Collects a child that the library started if no other handle names it, now or when it ends.
    ~Process() override;

    DWORD What() const override;
    /// `WaitForMultipleHandles` on this process alone.
    DWORD WaitForHandle(DWORD milliseconds, BOOL alertable) override;
    /// Waits until one of `count` processes has ended, or with `waitAll` all of them. Null entries are skipped.
    /// The entry of each process seen to end becomes null, and its state PROCESS_EXITED unless it was
    /// PROCESS_REAPED.
    ///
    /// Returns the index of the process whose end ended the wait, or WAIT_IO_COMPLETION when `alertable` and
    /// queued calls have run, or WAIT_FAILED when there is nothing but null entries or the calling process is
    /// among them. A process that is not there when the wait begins (collected already, or never there) ends a
    /// wait for any, and every wait of 0 milliseconds, with its index; its entry and its state then stay as they
    /// were. A cancellation point.
    ///
    /// Unlike Win32: there is no time-out. `milliseconds` means no more than the 0 just said.
    DWORD WaitForMultipleHandles(DWORD count, Handle** handles, BOOL waitAll, DWORD milliseconds,
                                 BOOL alertable) override;
    /// The process's end, as an event, for waits on several kinds, which do have a time-out. A process that has
    /// ended is reported at once, every time; one that runs is watched from now on by a thread of the library,
    /// which keeps a reference to it until it ends. Null when that thread cannot be made.
    Event* GetSynch(int& signaled) override;
    /// Ends the watching that `GetSynch` began. Its event is not set any more.
    void FreeSynch() override;

    /// The process id that it was made with.
    int GetPid() const { return pid; }
    /// What has been seen of the process. Only waits and `GetExitCodeProcess` should set it.
    ProcState_t GetState() const { return state.load(std::memory_order_acquire); }
    void SetState(ProcState_t newState) { state.store(newState, std::memory_order_release); }
    /// What `GetExitCodeProcess` stored; 0 before.
    int GetExitStatus() const { return exitStatus.load(std::memory_order_acquire); }
    void SetExitStatus(int newStatus) { exitStatus.store(newStatus, std::memory_order_release); }

    /// Starts the thread that watches processes, unless it runs. The first `GetSynch` does it, too.
    static void StartThread();

  private:
    friend class traiklofox::kernel::ProcessLife;

    const int pid;
    std::atomic<int> exitStatus;
    std::atomic<ProcState_t> state;
    int registered;               // 1 while it is in the watch set; guarded by the set's lock
    std::atomic<int> descriptor;  // tells of the end; -1 until a wait needs it
    const std::shared_ptr<traiklofox::kernel::ChildRecord> child;
};

constexpr DWORD DETACHED_PROCESS = 1;          ///< not a child of this process but of the system's first
constexpr DWORD CREATE_NEW_PROCESS_GROUP = 2;  ///< in a new session, without a terminal

/// `_STARTUPINFO::dwFlags`: the descriptors given as standard handles become the token's user's and group's.
constexpr DWORD STARTF_GIVE_TO_TOKEN_OWNER = 2;

/// A new process's standard input, output and error: `File` handles, which stay the caller's. A null handle (or
/// INVALID_HANDLE_VALUE) is "/dev/null".
struct _STARTUPINFO {
    DWORD cb;            ///< the record's size; not looked at
    DWORD dwFlags;       ///< STARTF_GIVE_TO_TOKEN_OWNER or 0; other bits are ignored
    Handle* hStdInput;   ///< descriptor 0
    Handle* hStdOutput;  ///< descriptor 1
    Handle* hStdError;   ///< descriptor 2
};
typedef _STARTUPINFO STARTUPINFO;
typedef STARTUPINFO* LPSTARTUPINFO;

/// What `CreateProcess` reports.
struct _PROCESS_INFORMATION {
    Handle* hProcess;   ///< the caller's to close
    Handle* hThread;    ///< always null
    DWORD dwProcessId;  ///< the process id
    DWORD dwThreadId;   ///< always 0
};
typedef _PROCESS_INFORMATION PROCESS_INFORMATION;
typedef PROCESS_INFORMATION* LPPROCESS_INFORMATION;

/// Starts a program and returns its process id, or -1 with errno. The child is the caller's to wait for, by
/// `waitpid` or through `OpenProcess`, as long as no handle has named it. Any thread may call.
///
/// flags        DETACHED_PROCESS, CREATE_NEW_PROCESS_GROUP, both or 0. The id of a detached process is returned,
///              too.
/// token        null, or the `SecurityToken` of the user and group to run as. Supplementary groups stay. The
///              right to change them is needed.
/// commandLine  the program's path and its arguments, at most 15 words between blanks and tabs. A stretch in
///              single or double quotes is kept whole, without the quotes; a backslash before a quote makes it an
///              ordinary character. The path is not searched for.
/// directory    null, or the directory to start in. A relative program path counts from there.
/// startup      null is like a record of null handles.
///
/// The program gets this process's environment, no other descriptors than the standard ones, the default action
/// for every signal, and an empty signal mask. Returns once it has replaced the child; one that takes longer
/// than 30 seconds for that is killed and started again, without limit.
///
/// Errors: EINVAL (no command line or one without a word; INVALID_HANDLE_VALUE or another kind of handle as
/// token), E2BIG (more than 15 words), EBADF (a standard handle that is no open file), those of `pipe2`, `fork`,
/// `chdir`, `setgid`, `setuid` and `execv`, and ENOMEM.
TRAIKLOFOX_API int Spawn(DWORD flags, Handle* token, const char* commandLine, const char* directory,
                         _STARTUPINFO* startup);

/// Starts a program, as `Spawn(flags, null, ...)` does. `commandLine`, or when it is null `application`, is the
/// whole command line, of at most 511 bytes. Returns 1 with `*info` filled, or 0 with errno as `Spawn` leaves it
/// (also EINVAL when both are null, E2BIG when it is too long); `*info` is then left alone. A null `info` wants
/// no handle. Any thread may call.
///
/// Unlike Win32: an application and a command line are not combined; the attributes, `inherit` and
/// `environment` are ignored; unused standard handles are "/dev/null"; the program's path is not searched for.
TRAIKLOFOX_C_API BOOL CreateProcess(const char* application, char* commandLine,
                                    _SECURITY_ATTRIBUTES* processAttributes,
                                    _SECURITY_ATTRIBUTES* threadAttributes, BOOL inherit, DWORD flags,
                                    void* environment, const char* directory, _STARTUPINFO* startup,
                                    _PROCESS_INFORMATION* info);
/// `CreateProcess` as the token's user and group. A null token changes neither.
TRAIKLOFOX_C_API BOOL CreateProcessAsUser(Handle* token, const char* application, char* commandLine,
                                          _SECURITY_ATTRIBUTES* processAttributes,
                                          _SECURITY_ATTRIBUTES* threadAttributes, BOOL inherit, DWORD flags,
                                          void* environment, const char* directory, _STARTUPINFO* startup,
                                          _PROCESS_INFORMATION* info);

/// Runs `command` with /bin/sh and waits for its end. Returns the wait status as `waitpid` gives it (take it
/// apart with WIFEXITED and its like), -1 for a null command or when the status is lost, and 127 when no process
/// can be made. A shell that cannot be run gives the wait status of an exit with 127. Any thread may call.
///
/// Meanwhile SIGCHLD has its default action, which is to ignore it while the statuses of children are kept; when
/// the last of several calls at once returns, its action is what it was before the first. The command gets the
/// caller's descriptors and signal mask, without the signals that the library blocks.
TRAIKLOFOX_API int System(const char* command);

/// Starts a program and sleeps a second. `commandLine` is its path and arguments: at most 15 words between
/// blanks, without quoting, 1023 characters. The library collects the child. Returns 32, or 0 when the command
/// line is null, too long or without a word, or when no process can be made. `show` is ignored.
///
/// Unlike Win32: a program that cannot be run gives 32, too.
TRAIKLOFOX_C_API UINT WinExec(const char* commandLine, UINT show);

/// A handle to the process with this id, a child or not, for the caller to close. Never null: whether there is
/// such a process is seen when it is used. `access` and `inherit` are ignored; an allocation failure is thrown
/// as `std::bad_alloc`.
///
/// Unlike Win32: the id of a process that has ended may become another's between this call and the first wait.
TRAIKLOFOX_C_API Handle* OpenProcess(DWORD access, BOOL inherit, DWORD processId);

/// Waits until a child has ended, and stores its exit status (0 to 255) in `*code`, or 0xFFFFFFFF when a signal
/// ended it. The child is then collected; the code is kept and given again. Returns 1; or 0 for a handle that is
/// no process, one that is no child of this process, or a child whose status has been collected by other means,
/// errno then being ECHILD. `code` may be null. Any thread may call. A cancellation point.
///
/// Unlike Win32: there is no answer for a process that still runs.
TRAIKLOFOX_C_API BOOL GetExitCodeProcess(Handle* process, DWORD* code);

/// Sends SIGTERM to the process. Returns 1, or 0 with errno when it cannot be sent (ESRCH once the exit code has
/// been taken) or the handle is no process. A null handle or INVALID_HANDLE_VALUE is the calling process, which
/// ends by `exit(status)`; `status` is not used otherwise.
///
/// Unlike Win32: a process may handle or ignore SIGTERM, and chooses its exit code.
TRAIKLOFOX_C_API BOOL TerminateProcess(Handle* process, int status);

/// Ends the process at once with `code`, without unwinding, destructors or `atexit` functions, as `_exit`
/// does.
TRAIKLOFOX_C_API void ExitProcess(DWORD code) __attribute__((noreturn));

/// What stands for the calling process where a handle is asked for: INVALID_HANDLE_VALUE, as on Win32. It cannot
/// be waited for and need not be closed.
TRAIKLOFOX_C_API Handle* GetCurrentProcess();
/// The calling process's id.
TRAIKLOFOX_C_API DWORD GetCurrentProcessId();
/// The process id of a process handle; 0 for any other handle.
TRAIKLOFOX_C_API DWORD GetProcessId(Handle* process);
