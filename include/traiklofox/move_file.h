#pragma once

/// Moving and deleting files. (`CopyFile` is in copy_file.h.)
///
/// A null path fails with EINVAL; where a function fails, `errno` is that of the failing system call. Any thread may
/// call any function.

#include <traiklofox/types.h>

/// Flags of `MoveFileEx`, in the library's own numbers.
constexpr DWORD MOVEFILE_COPY_ALLOWED = 1;        ///< to another file system, copies and deletes
constexpr DWORD MOVEFILE_DELAY_UNTIL_REBOOT = 2;  ///< not supported: reported, then ignored
constexpr DWORD MOVEFILE_REPLACE_EXISTING = 4;    ///< without it nothing is moved at all
constexpr DWORD MOVEFILE_WRITE_THROUGH = 8;       ///< not supported: reported, then ignored

/// Removes the name of a file; the file goes with its last name and the last handle on it. Returns TRUE or FALSE.
///
/// Unlike Win32: a file that is open or that nobody may write can be deleted; the directory's permissions decide.
TRAIKLOFOX_C_API BOOL DeleteFile(const char* path);

/// Renames a file or directory, replacing a file, or an empty directory, that has the new name.
///
/// flags  without `MOVEFILE_REPLACE_EXISTING`, deliberately, nothing is done, and the result is TRUE.
///        `MOVEFILE_COPY_ALLOWED` allows for a file to go to another file system: it is copied (`CopyFile`), then
///        deleted. `MOVEFILE_DELAY_UNTIL_REBOOT` and `MOVEFILE_WRITE_THROUGH` are reported on standard error and
///        otherwise ignored.
/// Returns TRUE, or FALSE: another file system without leave to copy (EXDEV), or renaming, copying or deleting
/// failed. `from` is then whole; `to` holds the beginning of a copy that failed, or all of it when `from` could not
/// be deleted.
TRAIKLOFOX_C_API BOOL MoveFileEx(const char* from, const char* to, DWORD flags);

/// Renames a file or directory to a name that nothing has; a file goes to another file system, too, as with
/// `MoveFileEx`. Returns TRUE, or FALSE: the new name exists (EEXIST), or renaming, copying or deleting failed.
///
/// Unlike `MoveFileEx` without flags, this is the Win32 function's meaning. On a file system that cannot rename
/// without replacing, a file that gets the name at this very moment is replaced.
TRAIKLOFOX_C_API BOOL MoveFile(const char* from, const char* to);
