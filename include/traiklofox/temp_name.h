#pragma once

/// Names for temporary files.

#include <traiklofox/strings.h>

/// Returns the path of a file in `directory` (empty: the current one) that does not exist at this moment:
/// `directory`, one "/", and ".kztmp.<process id>.<number>-<number>", the numbers in hexadecimal. No other
/// call in any thread or process, a forked child included, returns the same. The process id tells a later
/// clean-up whose it was.
///
/// Nothing is created: open it with `FileLock::noreplace` or O_EXCL. Any thread may call; errno is left
/// alone. May throw `std::bad_alloc`.
TRAIKLOFOX_API CKZString KZTempNam(const CKZString& directory);
