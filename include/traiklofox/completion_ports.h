#pragma once

/// Completion ports: queues of packets, and of directory handles whose changes have come.
///
/// No function here throws. Any thread may call any of them.

#include <traiklofox/handle.h>
#include <traiklofox/overlapped.h>

#include <memory>

class ChangeNotificationHandle;

namespace traiklofox::files {
class CompletionQueue;
}

/// A completion port: a list of directory handles, its members, and a queue of posted packets, which come first.
///
/// A port holds a reference to each member, and lets a member go when `CloseHandle` has closed the last of its
/// handles. In a wait on handles of several kinds it counts as signalled while it has something to deliver.
class TRAIKLOFOX_API IoCompletionPort : public Handle {
  public:
    IoCompletionPort();
    ~IoCompletionPort() override;
    DWORD What() const override;

    /// Adds a member, which may be one already, at the end of the list, and takes a reference to it.
    void Insert(ChangeNotificationHandle* handle);
    /// Takes a member out, once, and drops the reference to it. Returns 1, or 0 when it is no member.
    BOOL Erase(ChangeNotificationHandle* handle);
    /// The member at `index`, or null. The reference stays the port's.
    ChangeNotificationHandle* GetHandle(DWORD index) const;

    /// Waits until a member is signalled and uses its signal up; the member's changes stay where they are. Returns
    /// its index (the first, of several), WAIT_TIMEOUT, WAIT_IO_COMPLETION, or WAIT_FAILED when there are no members
    /// or more than MAXIMUM_WAIT_OBJECTS. While a packet is queued it returns 0 at once and leaves it queued,
    /// however many members there are.
    DWORD WaitForHandle(DWORD milliseconds, BOOL alertable) override;
    /// As a wait on handles of several kinds.
    DWORD WaitForMultipleHandles(DWORD count, Handle** handles, BOOL waitAll, DWORD milliseconds,
                                 BOOL alertable) override;
    /// The event that stands for the port; consumes nothing.
    Event* GetSynch(int& signaled) override;

  private:
    friend class traiklofox::files::CompletionQueue;
    const std::unique_ptr<traiklofox::files::CompletionQueue> queue;
};

/// Makes a port, or adds a directory handle to one.
///
/// file      a handle of `CreateFile` on a directory or of `FindFirstChangeNotification`; INVALID_HANDLE_VALUE or
///           null makes a port without members.
/// existing  the port to add it to; null makes a new one. A handle that is a member stays the one member that it is.
/// key       what `GetQueuedCompletionStatus` reports for this handle.
/// threads   ignored: as many threads run as there are packets.
/// Returns the port, which for a new one the caller owns; or null with errno: EINVAL (`existing` is no port, there
/// is neither file nor room for a new port, the file is of another kind), ENOMEM.
///
/// Unlike Win32: only directories can be members.
TRAIKLOFOX_C_API Handle* CreateIoCompletionPort(Handle* file, Handle* existing, ULONG_PTR key, DWORD threads);

/// Takes the next packet, oldest first; if there is none, the changes of the first member that has some, as
/// `ChangeNotificationHandle::GetChangeData` delivers them, into the buffer that was given to
/// `ReadDirectoryChanges`.
///
/// bytes         receives the packet's number, or the bytes in the buffer; 0 when not even one change fitted, when
///               the buffer is missing, and for a member without `ReadDirectoryChanges`.
/// key           receives the packet's key, or the member's.
/// overlapped    receives the record that was posted, or given to `ReadDirectoryChanges`. Any of these may be null.
/// milliseconds  0 tests; INFINITE waits without limit.
/// Returns TRUE; or FALSE with null in `*overlapped` and errno: ETIMEDOUT, EINVAL (no port), ENOMEM (the changes stay
/// queued). A port without members waits for packets, and one may have any number of members.
///
/// A member reports again after the next `ReadDirectoryChanges` on it.
TRAIKLOFOX_C_API BOOL GetQueuedCompletionStatus(Handle* port, DWORD* bytes, ULONG_PTR* key,
                                                _OVERLAPPED** overlapped, DWORD milliseconds);

/// Queues a packet, which the library does not look into, and wakes a thread that waits. Returns TRUE, or FALSE with
/// errno: EINVAL (no port), ENOMEM.
TRAIKLOFOX_C_API BOOL PostQueuedCompletionStatus(Handle* port, DWORD bytes, ULONG_PTR key,
                                                 _OVERLAPPED* overlapped);

/// Delivers what `ReadDirectoryChanges` waits for: when changes have come, as `GetQueuedCompletionStatus` does; when
/// they have been delivered already, their number of bytes once more.
///
/// handle      the directory handle.
/// overlapped  the record that was given, or null if none was.
/// bytes       receives the bytes in the buffer; may be null.
/// wait        TRUE waits without limit for a change.
/// Returns TRUE; or FALSE with errno: EINPROGRESS (no change has come, and `wait` is FALSE), EINVAL (the handle is
/// none of a directory, or nothing is being read), ENOMEM.
///
/// Unlike Win32: reading and writing files is over when the call returns, so a file's handle gives EINVAL.
TRAIKLOFOX_C_API BOOL GetOverlappedResult(Handle* handle, _OVERLAPPED* overlapped, DWORD* bytes, BOOL wait);
