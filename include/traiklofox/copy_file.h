#pragma once

#include <traiklofox/types.h>

/// Copies the file `from` to `to`, which is replaced unless `failIfExists` is not 0. Both are locked
/// meanwhile
/// (`FileLock`). The copy gets the source's owner, group and mode, as far as the process may, unless
/// `bRunningInServer`.
///
/// Returns TRUE, or FALSE: the source cannot be opened (it must be writable, to be locked), the destination
/// exists and `failIfExists` is set, both are the same file (which is left whole), or reading or writing
/// failed, a full disk included. A copy that failed half way leaves the destination with what was written.
/// Any thread may call.
TRAIKLOFOX_C_API BOOL CopyFile(const char* from, const char* to, BYTE failIfExists);
