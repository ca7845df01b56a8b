#pragma once

/// The machine's processes and their names, as /proc tells them.
///
/// Every function may be called by any thread. What is told may have changed by the time that the caller looks at it.
///
/// Where a line of "/proc/ID/stat" is shorter than it should be, or "/proc/ID/exe" reads as a device and an inode (it
/// has a ":" in it), /proc is an old kernel's; from then on, and until the process ends, `EnumProcesses` is
/// `DumbEnumProcesses`, and `GetProcessName` asks for no path.

#include <traiklofox/handle.h>
#include <traiklofox/strings.h>

/// Stores the ids of the processes, threads left out, in `ids`, which has room for `size` bytes, and 4 times their
/// number in `*returned`. A thread is what does not send SIGCHLD when it ends.
///
/// Returns TRUE, or FALSE with errno: /proc cannot be opened or read, `returned` is null, or `ids` is null and `size`
/// is not less than 4 (EINVAL). A process whose files cannot be read, as it ends, is left out.
///
/// Deliberately, every entry of /proc that is read counts against the room, "." and ".." and what is no process, too:
/// of 100 processes, an array for 100 gets those that come first after some 60 other files, and one for 2 gets none.
/// Give it room for several hundred more than are expected. Unlike Win32, there is no process 0.
TRAIKLOFOX_C_API BOOL EnumProcesses(DWORD* ids, DWORD size, DWORD* returned);

/// The same where /proc lists threads beside the processes and does not tell them apart: what has the name of its
/// parent counts as a thread, as do processes without a parent. In ascending order.
///
/// Returns FALSE with ENOMEM, too.
TRAIKLOFOX_API BOOL DumbEnumProcesses(DWORD* ids, DWORD size, DWORD* returned);

/// The name of a process: with `fullPath` not 0, the path of its program, of which at most the first 256 bytes, as far
/// as the caller may know it; else, and without it, the command's name, of which the kernel keeps 15 bytes. Empty when
/// there is no such process, or its name is not to be had. May throw `std::bad_alloc`.
///
/// The command's name ends at its first ")". One with a blank before that is given as empty.
TRAIKLOFOX_API CKZString GetProcessName(DWORD processId, INT fullPath);

/// Copies the name of the process's command into `buffer`. A null handle is the calling process. Returns the length
/// without the NUL; 0, with nothing copied, when it is greater than `size`, when there is no `buffer`, or when memory
/// is short; 0, with a NUL where `size` has room for it, when there is no name or the handle is no process's.
///
/// Deliberately, a name of exactly `size` bytes is copied, and its NUL stands behind the buffer's end: give a `size` of
/// one less than there is room for.
TRAIKLOFOX_C_API DWORD GetModuleBaseName(Handle* process, void* module, char* buffer, DWORD size);

/// Copies the name of the process's program, without the directories, into `buffer`. A null handle is the calling
/// process. Returns the length without the NUL; 0, with nothing copied, when `size` is less than the length of the
/// whole path, or has no room for the NUL, and otherwise as `GetModuleBaseName`.
///
/// Unlike Win32, and deliberately, the directories are left out. One program alone keeps its "/": that of the root
/// directory, as "/init".
TRAIKLOFOX_C_API DWORD GetModuleFileNameEx(Handle* process, void* module, char* buffer, DWORD size);

/// `GetModuleFileNameEx` of the calling process.
TRAIKLOFOX_C_API DWORD GetModuleFileName(void* module, char* buffer, DWORD size);

/// Whether some process's command has exactly this name (see `GetProcessName`). FALSE for an empty and a null one, and
/// when /proc cannot be read or memory is short.
TRAIKLOFOX_API BOOL DoesProcessExist(const char* name);

/// The server instance that the process belongs to, empty when it belongs to none. Process 0 is the calling one. An
/// instance runs in a directory whose name begins with "https-":
///
///     working directory /srv/https-alpha/logs, the calling process alone    https-alpha
///     command line /srv/https-alpha/bin/start                               /https-alpha
///
/// Of a command line, the first 256 bytes count, up to an empty argument. May throw `std::bad_alloc`.
TRAIKLOFOX_API CKZString GetProcessInstanceName(DWORD processId);
