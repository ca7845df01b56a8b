#pragma once

/// Watching directories for changes.
///
/// Nothing watches by itself: the application starts one thread on `WatchDirsThread`, which scans the watched
/// directories every few seconds, compares, and signals the handles of those that have changed. A change that is
/// undone between two scans is not seen.
///
/// What counts as a change is a regular file, or a symbolic link to one, that is new, gone, or different in what a
/// handle's filter asks for. Directories themselves are none; they are entered, links to them too, for a handle that
/// watches the subtree, except where a link leads back to a directory on the way. The first scan of a watched
/// directory finds every file new. A directory that cannot be opened changes nothing: once it can be, what is found is
/// compared with what was found before. (A subdirectory that stays away for a thousand scans is forgotten.) What
/// has been found is forgotten when the last handle on the path is closed.
///
/// Any thread may call any function. Those with Win32 names let no exception out. The child of a `fork` has no scanner
/// and watches nothing: it may watch through handles of its own, and leaves its parent's alone.

#include <traiklofox/handle.h>
#include <traiklofox/overlapped.h>
#include <traiklofox/strings.h>
#include <traiklofox/thread_safety.h>

#include <atomic>
#include <deque>
#include <memory>

namespace traiklofox::files {
class NotificationState;
}

/// What a handle's filter asks for. New and vanished files are reported whatever the filter says.
constexpr DWORD FILE_NOTIFY_CHANGE_FILE_NAME = 0x001;
constexpr DWORD FILE_NOTIFY_CHANGE_DIR_NAME = 0x002;    ///< accepted; directories are not reported
constexpr DWORD FILE_NOTIFY_CHANGE_ATTRIBUTES = 0x004;  ///< another mode, owner or group
constexpr DWORD FILE_NOTIFY_CHANGE_SIZE = 0x008;
constexpr DWORD FILE_NOTIFY_CHANGE_LAST_WRITE = 0x010;
constexpr DWORD FILE_NOTIFY_CHANGE_LAST_ACCESS = 0x020;  ///< accepted; not looked at, nor are the following
constexpr DWORD FILE_NOTIFY_CHANGE_CREATION = 0x040;
constexpr DWORD FILE_NOTIFY_CHANGE_SECURITY = 0x100;

/// What has happened to a file.
constexpr DWORD FILE_ACTION_ADDED = 1;  ///< or found by the first scan
constexpr DWORD FILE_ACTION_REMOVED = 2;
constexpr DWORD FILE_ACTION_MODIFIED = 3;
constexpr DWORD FILE_ACTION_DIRECTORY_CHANGED = 5;  ///< anything in the directory may be different

/// One change.
struct _NOTIFY_INFO {
    DWORD action;      ///< FILE_ACTION_...
    CKZString name;    ///< relative to the watched path, with slashes; empty for the whole directory
    _FILETIME time;    ///< of the last write, in whole seconds; of a removed file, as last seen
    DWORD attributes;  ///< FILE_ATTRIBUTE_NORMAL, or FILE_ATTRIBUTE_DIRECTORY for the whole directory
    DWORD size;        ///< the low 32 bits
};

/// Changes in the order in which they were found.
typedef std::deque<_NOTIFY_INFO> NotifyRecords;

/// A change as it stands in a caller's buffer, followed by others at multiples of 4 bytes.
struct _FILE_NOTIFY_INFORMATION {
    DWORD NextEntryOffset;    ///< from the beginning of this record; 0 in the last
    DWORD Action;             ///< FILE_ACTION_...
    DWORD FileNameLength;     ///< in bytes
    _FILETIME LastWriteTime;  ///< in whole seconds; of a removed file, as last seen
    DWORD FileSize;           ///< the low 32 bits
    DWORD FileAttributes;     ///< FILE_ATTRIBUTE_NORMAL, or FILE_ATTRIBUTE_DIRECTORY for the whole directory
    DWORD Reserved[4];        ///< 0
    char FileName[1];         ///< as long as it says; at least 4 zeroes follow
};
typedef _FILE_NOTIFY_INFORMATION FILE_NOTIFY_INFORMATION;
typedef FILE_NOTIFY_INFORMATION* PFILE_NOTIFY_INFORMATION;

static_assert(offsetof(_FILE_NOTIFY_INFORMATION, FileSize) == 20);
static_assert(offsetof(_FILE_NOTIFY_INFORMATION, FileName) == 44);

/// A handle on a watched directory: what to look for, what has been found, and where to deliver it.
///
/// It is signalled, for every waiter, from the end of the scan that found a change until the change is taken notice
/// of: by `FindNextChangeNotification`, or by whatever delivers its records. While the scanner's list has the handle,
/// it holds a reference; `CloseHandle` by the last of its owners takes it off. `Signal` and the getters and setters
/// may be used by any thread; set up a handle before it is watched.
class TRAIKLOFOX_API TRAIKLOFOX_CAPABILITY("change records") ChangeNotificationHandle : public Handle {
  public:
    /// On the directory `path` (null: the empty path), which need not exist. It is not watched yet.
    ChangeNotificationHandle(const char* path, BOOL watchSubtree, DWORD filter);
    ~ChangeNotificationHandle() override;

    DWORD What() const override;
    /// Returns WAIT_OBJECT_0 when a change is pending. Else waits for the auxiliary event, or for the signal where
    /// there is none.
    DWORD WaitForHandle(DWORD milliseconds, BOOL alertable) override;
    /// As a wait on handles of several kinds.
    DWORD WaitForMultipleHandles(DWORD count, Handle** handles, BOOL waitAll, DWORD milliseconds,
                                 BOOL alertable) override;
    /// The event that stands for the signal; consumes nothing.
    Event* GetSynch(int& signaled) override;
    /// Sets the state to 1, sets the auxiliary event, and wakes who waits for the handle or for a port that it is a
    /// member of. Returns the state.
    BOOL Signal() override;
    /// 1 from `Signal` until the signal is used up, else 0.
    BOOL State() const;

    /// Takes the handle off the scanner's list and delivers its records, as `_FILE_NOTIFY_INFORMATION`, into the
    /// buffer: as many as fit, and removes those; the rest stay queued. A buffer of the library's own grows instead,
    /// so that all fit. `*bytes` receives the bytes written, `*key` (which may be null) the key. Clears as `Clear`
    /// does. Returns 1; or 0, with nothing delivered, when `bytes` is null, when there is no record list, or, with
    /// ENOMEM, when the library's buffer cannot grow.
    BOOL GetChangeData(DWORD* bytes, ULONG_PTR* key);

    /// Clears the pending and changed flags and the state, and resets the auxiliary event.
    void Clear();

    /// Enters and leaves the section that guards everything here. It is recursive. Call nothing but this handle's
    /// getters and setters meanwhile: `GetChangeData` waits for a scan, which waits for this section.
    void Lock() TRAIKLOFOX_ACQUIRE();
    void Unlock() TRAIKLOFOX_RELEASE();

    /// What is watched. Changing it takes effect the first time that the handle is given to the scanner.
    CKZString GetPath() const;
    void SetPath(const CKZString& path);
    /// The directory in which the last change was seen.
    CKZString GetChangeString() const;
    void SetChangeString(const CKZString& directory);
    /// 1 when a change has been found and nobody has taken notice yet.
    BOOL GetPending() const;
    void SetPending(BOOL pending);
    /// 1 when a marker file of the server (".KZ...") was young, see `WatchDirsThread`.
    BOOL GetChanged() const;
    void SetChanged(BOOL changed);
    /// 1 when directories below the path are watched, too, else 0.
    BOOL GetWatchSubtree() const;
    void SetWatchSubtree(BOOL watchSubtree);
    /// FILE_NOTIFY_CHANGE_..., combined by "|".
    DWORD GetFilter() const;
    void SetFilter(DWORD filter);
    /// The completion key, 0 for none.
    ULONG_PTR GetKey() const;
    void SetKey(ULONG_PTR key);
    /// Where records are delivered. Null stands for a buffer of the library's own: once something has been delivered,
    /// `GetBuffer` returns that, valid until the next delivery. A buffer that is given stays the caller's.
    void* GetBuffer() const;
    void SetBuffer(void* buffer);
    /// The buffer's size in bytes.
    DWORD GetBufSize() const;
    void SetBufSize(DWORD size);
    /// The queued records; null until `ReadDirectoryChanges` or `SetNotifyData`. It stays the handle's own; hold
    /// `Lock` while using it.
    NotifyRecords* GetNotifyData() const;
    /// Replaces the records; the handle then owns `records`, which was made with `new`. Null: none are kept.
    void SetNotifyData(NotifyRecords* records);
    /// What is set when a change has come, besides the handle; may be null. The handle holds a reference to it.
    Handle* GetAuxEvent() const;
    void SetAuxEvent(Handle* event);

  private:
    friend class traiklofox::files::NotificationState;
    const std::unique_ptr<traiklofox::files::NotificationState> self;
};

/// Watches `path`: makes a `ChangeNotificationHandle`, gives it to the scanner and returns it. INVALID_HANDLE_VALUE
/// with errno when it cannot be made: EINVAL (null path), ENOMEM. The caller owns it and closes it with
/// `FindCloseChangeNotification`.
///
/// Unlike Win32: the directory need not exist; changes are noticed by `WatchDirsThread` alone.
TRAIKLOFOX_C_API Handle* FindFirstChangeNotification(const char* path, BOOL watchSubtree, DWORD filter);

/// Takes notice of the change that was signalled, so that the handle is signalled by the next one, and gives the
/// handle back to the scanner if it does not have it. Returns TRUE, or FALSE with errno: EINVAL (another kind of
/// handle), ENOMEM.
TRAIKLOFOX_C_API BOOL FindNextChangeNotification(Handle* handle);

/// Takes a handle from the scanner. When a scan of its directory is running it waits for the end of that, unless it is
/// called by that scan's own callback.
///
/// keep  1 clears the handle's pending and changed flags and its state, and the handle stays the caller's; otherwise
///       the caller's reference is dropped, as by `CloseHandle`.
/// Returns 0 always. A handle that the scanner does not have, which may be any pointer, is left alone: close it with
/// `CloseHandle`, which also takes a handle from the scanner.
///
/// Unlike Win32: 0 says nothing, and there is a second argument.
TRAIKLOFOX_C_API BOOL FindCloseChangeNotification(Handle* handle, int keep = 0);

/// Makes `path` known, and with a `handle` (else null) gives that to the scanner, for this path. A handle that the
/// scanner has stays as it is. May throw `std::bad_alloc`. Without a handle a new path stays known for ever.
TRAIKLOFOX_API void WatchDir(const CKZString& path, ChangeNotificationHandle* handle);

/// Asks for the changes of a directory: gives the handle to the scanner; changes are then queued, and the first scan
/// that finds some signals the handle. Whoever waits gets them delivered once, by `GetQueuedCompletionStatus` (a
/// port), `GetOverlappedResult` or `completionRoutine`; then nothing is scanned for this handle until the next call,
/// which finds what changed meanwhile. Changes that were left over from the last delivery signal the handle at once.
///
/// handle      of `CreateFile` on a directory, or of `FindFirstChangeNotification`.
/// buffer      receives the changes, as `_FILE_NOTIFY_INFORMATION`; must stay valid until the delivery or until the
///             handle is closed. Null: the library's own, see `ChangeNotificationHandle::GetBuffer`.
/// size        the buffer's size in bytes. It is never overrun: what does not fit is left for the next call.
/// bytes       may be null; receives 0.
/// overlapped  may be null. Its `hEvent`, if any, becomes the handle's auxiliary event, which is reset. The completion
///             key is taken from its `Pointer` when the handle has none from a port.
/// completionRoutine  may be null; called once, when changes have come, in an alertable wait of the calling thread.
/// Returns TRUE, or FALSE with errno: EINVAL (another kind of handle), ENOMEM.
///
/// Unlike Win32: it never waits, not even without `overlapped`; the records are those of the library (narrow names).
TRAIKLOFOX_C_API BOOL ReadDirectoryChanges(Handle* handle, void* buffer, DWORD size, BOOL watchSubtree,
                                           DWORD filter, DWORD* bytes, _OVERLAPPED* overlapped,
                                           LPOVERLAPPED_COMPLETION_ROUTINE completionRoutine);

/// Scans `directory` once, on the calling thread, for `handle` (may be null) and for all other handles on this path,
/// and queues what has changed; signals nobody. `deviceTest`: as in `WatchDirsCallbacks`, may be null. May throw
/// `std::bad_alloc`.
TRAIKLOFOX_API void UnixDirScan(const CKZString& directory, ChangeNotificationHandle* handle,
                                bool (*deviceTest)(ULONGLONG device));

/// What the starter of a scanner supplies; a null member has the meaning given. None is called under a lock: each may
/// call anything here.
struct WatchDirsCallbacks {
    void (*sleep)(DWORD milliseconds);  ///< waits until the next scan; null: `Sleep`
    bool (*stop)();     ///< true: the scanner ends; null: when `bFileShutdownRequested` is set
    DWORD (*onExit)();  ///< called last; null: the result is 0
    bool (*deviceTest)(ULONGLONG device);  ///< false: what the device shows cannot be trusted; null: it can
};

/// The body of the scanner's thread, for `CreateThread`: scans until `stop` says so, then sets
/// `bFileShutdownRequested` and returns what `onExit` returns. `callbacks` points to a `WatchDirsCallbacks` (null: all
/// null), which must outlive the thread. A scanner that starts after another has ended clears the flag again.
///
/// Between two scans it sleeps for twice the time that the scan took, at least 4 s and at most 30 s, or for the scan's
/// time if that is longer.
///
/// When `deviceTest` says false for a watched directory, the directory counts as changed as a whole, with one record
/// of FILE_ACTION_DIRECTORY_CHANGED, and not again until it has said true. While `bRunningInServer`, files whose
/// names begin with ".KZ" are the server's markers: they are not reported; one that was written within the last 3
/// hours sets the changed flag of the directory's handles.
///
/// Each handle that is signalled is shown on standard error under "Abt2Signal:". Lacking memory, it leaves the rest
/// of a scan to the next one. Every level of a subtree takes some hundred bytes of stack: give the thread one of
/// the default size.
TRAIKLOFOX_API DWORD WatchDirsThread(void* callbacks);

/// Set by the scanner when it ends, or by the application: scans stop reading, and report nothing as gone.
extern TRAIKLOFOX_API std::atomic<bool> bFileShutdownRequested;
/// How many scans are running.
extern TRAIKLOFOX_API std::atomic<LONG> amInUnixDirScan;
/// True while a scan is running.
TRAIKLOFOX_API bool InUnixDirScan();

/// Prints the known directories with their files, and the scanner's handles, to standard error.
TRAIKLOFOX_API void DumpDirData();
