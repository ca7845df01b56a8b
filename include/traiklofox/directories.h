#pragma once

/// Making, removing and measuring directories, and the current one.
///
/// A null path fails with EINVAL; where a function fails, `errno` is that of the failing system call. Any thread may
/// call any function; the current directory is the whole process's.

#include <traiklofox/strings.h>
#include <traiklofox/types.h>

/// `CreateDirectoryEx` without a template.
TRAIKLOFOX_C_API BOOL CreateDirectory(const char* path, _SECURITY_ATTRIBUTES* security);

/// Makes the directory `path` with permissions 0755, less the process's umask.
///
/// templateDirectory  null, or gives the new directory its mode, owner and group, as far as the process may
/// security           ignored
/// Returns TRUE, also when `path` exists already, whatever it is. FALSE when it cannot be made, or there is no
/// template: then an empty directory `path` is removed again, even one that existed before.
///
/// Unlike Win32: what exists is no failure.
TRAIKLOFOX_C_API BOOL CreateDirectoryEx(const char* templateDirectory, const char* path,
                                        _SECURITY_ATTRIBUTES* security);

/// Removes an empty directory. Of a symbolic link, removes the link, and the directory that it names if that is empty;
/// a link to anything else goes, too.
///
/// Where the system reports a directory that is not empty as EEXIST (Linux says ENOTEMPTY), first deletes the
/// library's markers in it: for each entry whose name begins with ".KZ", the path and the name with nothing between
/// them, so that `path` must end with "/" for that.
/// Returns TRUE when the directory, or the link, is gone; FALSE otherwise.
TRAIKLOFOX_C_API BOOL RemoveDirectory(const char* path);

/// Makes `path` the process's current directory. Returns TRUE or FALSE.
TRAIKLOFOX_C_API BOOL SetCurrentDirectory(const char* path);

/// Stores the path of the current directory, with a NUL, in `buffer` of `size` bytes.
///
/// Returns the length without the NUL; when it does not fit (or `buffer` is null), the size that it needs, and nothing
/// is stored; 0 with `errno` on failure, as when the directory has been removed (ENOENT).
TRAIKLOFOX_C_API DWORD GetCurrentDirectory(DWORD size, char* buffer);

/// A size of the files below a directory, in bytes modulo 2^32; 0 with `errno` when `directory` is none.
///
/// It is, deliberately, not the sum of all: the size of the directory itself and of what it holds, where each
/// subdirectory, on the way, replaces the total so far by its own. So it is that of the last subdirectory visited,
/// plus what came after. Symbolic links are followed, but not into a directory on whose way down they are. What
/// cannot be opened counts with its own size only, and what cannot be asked not at all.
///
/// May throw `std::bad_alloc`.
TRAIKLOFOX_API DWORD GetDirectoryTreeSize(const CKZString& directory);
