#pragma once

/// Copying a file.

#include <traiklofox/types.h>

/// Copies the file `from` to `to`, replacing it unless `failIfExists` is not 0. Both are opened and locked as
/// `FileLock` does, waiting for their locks without limit; the source must therefore be writable. Unless
/// `bRunningInServer`, the copy gets the source's owner, group and mode, as far as the process may give them.
///
/// Returns TRUE once all is handed to the system, or FALSE with `errno`: a null path (EINVAL), the source
/// cannot be opened or locked, `to` exists and `failIfExists` is set (EEXIST, no message), both are one file,
/// by whatever names (EEXIST), no memory (ENOMEM), or reading or writing failed, as on a full disk.
///
/// What a failure leaves behind: `from` always whole; `to` untouched until it is locked, then, when reading
/// or writing fails, with the beginning of the copy.
///
/// Any thread may call. As closing a file gives up every `lockf` lock that the process has on it, so does
/// copying it.
TRAIKLOFOX_C_API BOOL CopyFile(const char* from, const char* to, BYTE failIfExists);
