#pragma once

/// Opening, reading, writing and measuring files through handles.
///
/// A handle of this family is a `File` (handle.h) and holds a descriptor; `CloseHandle` closes it with the last
/// reference. No handle, and a handle of another kind, fails with EBADF. Where a function fails, `errno` is that of
/// the failing system call.
///
/// Thread safety: any thread may call any function. A handle has one position, which all its users move.

#include <traiklofox/handle.h>
#include <traiklofox/types.h>

struct _OVERLAPPED;

/// How `CreateFile` accesses a file. Unlike Win32, in the library's own numbers.
constexpr DWORD GENERIC_READ = 1;
constexpr DWORD GENERIC_WRITE = 2;
constexpr DWORD FILE_APPEND_DATA = 4;     ///< every write goes to the end
constexpr DWORD FILE_LIST_DIRECTORY = 1;  ///< of a directory: as `GENERIC_READ`

/// How `CreateFile` shares a file: ignored, since any process may open any file at any time.
constexpr DWORD FILE_SHARE_READ = 1;
constexpr DWORD FILE_SHARE_WRITE = 2;
constexpr DWORD FILE_SHARE_DELETE = 4;

/// What `CreateFile` makes of a file that exists, or does not.
constexpr DWORD CREATE_NEW = 1;         ///< must not exist
constexpr DWORD CREATE_ALWAYS = 2;      ///< is emptied, or made
constexpr DWORD OPEN_EXISTING = 3;      ///< must exist
constexpr DWORD OPEN_ALWAYS = 4;        ///< is opened, or made
constexpr DWORD TRUNCATE_EXISTING = 5;  ///< unlike Win32, as `CREATE_ALWAYS`: is emptied, or made

/// Flags of `CreateFile`, which may be combined with attributes. All but the first are ignored.
constexpr DWORD FILE_FLAG_BACKUP_SEMANTICS = 0x4000;  ///< opens a directory, to watch it
constexpr DWORD FILE_FLAG_OVERLAPPED = 0x40000000;
constexpr DWORD FILE_FLAG_RANDOM_ACCESS = 0x10000000;
constexpr DWORD FILE_FLAG_SEQUENTIAL_SCAN = 0x08000000;

/// Where `SetFilePointer` counts from.
constexpr DWORD FILE_BEGIN = 0;
constexpr DWORD FILE_CURRENT = 1;
constexpr DWORD FILE_END = 2;

constexpr DWORD INVALID_FILE_SIZE = 0xFFFFFFFF;         ///< `GetFileSize` failed
constexpr DWORD INVALID_SET_FILE_POINTER = 0xFFFFFFFF;  ///< `SetFilePointer` failed

/// Opens a file, making it with permissions 0644 (less the process's umask) where `disposition` says so; or opens a
/// directory to watch it.
///
/// access       `GENERIC_READ` (also 0), `GENERIC_WRITE` or both; `FILE_APPEND_DATA` alone reads, and with
///              `GENERIC_WRITE` or both writes at the end. Any other value is reported on standard error and reads.
/// share        ignored
/// security     ignored
/// disposition  `CREATE_NEW` to `TRUNCATE_EXISTING`; any other value is reported on standard error, and opens what
///              exists.
/// flags        only `FILE_FLAG_BACKUP_SEMANTICS` counts: opens a directory for `ReadDirectoryChanges`
/// templateFile ignored
/// Returns a handle, which the caller closes: a `File`, or of a directory a change notification handle.
/// INVALID_HANDLE_VALUE when that fails: a null path (EINVAL), `open` failed, no memory (ENOMEM), or
/// `FILE_FLAG_BACKUP_SEMANTICS` for what is no directory (ENOTDIR) or cannot be watched. Null for a directory
/// whose access does not include `GENERIC_READ` (EINVAL).
///
/// Unlike Win32: access and disposition are the library's own numbers, nothing is locked against others, and
/// `TRUNCATE_EXISTING` makes a file that is missing.
TRAIKLOFOX_C_API Handle* CreateFile(const char* path, DWORD access, DWORD share,
                                    _SECURITY_ATTRIBUTES* security, DWORD disposition, DWORD flags,
                                    Handle* templateFile);

/// Reads up to `count` bytes from the handle's position on.
///
/// bytesRead   must not be null (EINVAL): gets how many bytes were read, which may be fewer than asked for, and is 0
///             at the end of the file; 0xFFFFFFFF after a failure.
/// overlapped  ignored: the read is over when the call returns.
/// Returns TRUE, at the end of the file too; FALSE when `read` failed. A read that a signal interrupts goes on.
TRAIKLOFOX_C_API BOOL ReadFile(Handle* file, void* buffer, DWORD count, DWORD* bytesRead,
                               _OVERLAPPED* overlapped);

/// Writes `count` bytes at the handle's position, in one system call.
///
/// bytesWritten  must not be null (EINVAL): gets how many bytes were written; 0xFFFFFFFF after a failure.
/// overlapped    ignored: the write is over when the call returns.
/// Returns TRUE exactly when all `count` bytes were written. FALSE with `*bytesWritten` below `count` is no error of
/// a system call, and sets no `errno`: a disk that runs full, or a pipe, took only so many; the next write tells why.
TRAIKLOFOX_C_API BOOL WriteFile(Handle* file, const void* data, DWORD count, DWORD* bytesWritten,
                                _OVERLAPPED* overlapped);

/// Waits until what was written is on the disk. Returns TRUE, or FALSE when that failed or `file` is nothing that
/// can be synced (EINVAL).
TRAIKLOFOX_C_API BOOL FlushFileBuffers(Handle* file);

/// Moves the handle's position by `distance` bytes from `method` (`FILE_BEGIN`, `FILE_CURRENT`, `FILE_END`).
///
/// distanceHigh  ignored, and not written; may be null
/// Returns the new position, of which only the low 32 bits, or `INVALID_SET_FILE_POINTER` on failure. Set `errno` to 0
/// before to tell that from a position whose low bits look the same.
///
/// Unlike Win32: one call moves by at most 2 GiB. Steps from `FILE_CURRENT` or `FILE_END` reach any place.
TRAIKLOFOX_C_API DWORD SetFilePointer(Handle* file, LONG distance, LONG* distanceHigh, DWORD method);

/// Moves the position of the descriptor `fd` to byte 1, deliberately, and returns 1; -1 with `errno` on failure. It
/// does not tell where the position was: `SetFilePointer(file, 0, nullptr, FILE_CURRENT)` does.
TRAIKLOFOX_API LONG tell(int fd);

/// Cuts the file, or extends it, to a length of exactly 1 byte, deliberately, and leaves the position there. Returns
/// TRUE, or FALSE when there is no handle or the position or length cannot be set.
///
/// Unlike Win32: the position before the call plays no part.
TRAIKLOFOX_C_API BOOL SetEndOfFile(Handle* file);

/// Returns the file's size in bytes, of which only the low 32 bits.
///
/// sizeHigh  null, or set to 0 always, unlike Win32
/// On failure `INVALID_FILE_SIZE`, and a message on standard error.
TRAIKLOFOX_C_API DWORD GetFileSize(Handle* file, DWORD* sizeHigh);

/// Tells a file's times, in whole seconds; a pointer may be null.
///
/// created, written  both the time of the last change of content, deliberately
/// accessed          the time of the last access
/// Returns TRUE always. When the file cannot be asked, a message stands on standard error, and the times are that of
/// the Unix epoch.
TRAIKLOFOX_C_API BOOL GetFileTime(Handle* file, _FILETIME* created, _FILETIME* accessed, _FILETIME* written);
