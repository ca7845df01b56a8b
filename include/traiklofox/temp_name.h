#pragma once

/// Names for temporary files.

#include <traiklofox/strings.h>
#include <traiklofox/types.h>

/// Returns the path of a file in `directory` (empty: the current one) that does not exist at this moment:
/// `directory`, one "/", and ".kztmp.<process id>.<number>-<number>", the numbers in hexadecimal. No other
/// call in any thread or process, a forked child included, returns the same. The process id tells a later
/// clean-up whose it was.
///
/// Nothing is created: open it with `FileLock::noreplace` or O_EXCL. Any thread may call; errno is left
/// alone. May throw `std::bad_alloc`.
TRAIKLOFOX_API CKZString KZTempNam(const CKZString& directory);

/// Tells the directory for temporary files: the first of the environment's TMP, TEMP and TMPDIR that is set and not
/// empty, else "/tmp"; always with a "/" at its end. Whether it exists is not looked at.
///
/// Stores the path, with a NUL, in `buffer` of `size` bytes. Returns the length without the NUL; when it does not fit
/// (or `buffer` is null), the size that it needs, and nothing is stored. Any thread may call, as long as none changes
/// the environment.
TRAIKLOFOX_C_API DWORD GetTempPath(DWORD size, char* buffer);

/// Makes the name of a temporary file: `directory`, "/", the first three characters of `prefix`, a number in
/// hexadecimal (0 to FFFF), and ".TMP".
///
/// directory  where it is to be; "." is the current one. At most MAX_PATH - 14 characters.
/// prefix     may be null or shorter; no "/" in what is used of it
/// unique     0: numbers from the clock's on are tried until there is no such file, and an empty one is made, which
///            only its owner may open. Else its low 16 bits are the number, and no file is made or looked for.
/// name       gets the path with a NUL, at most MAX_PATH bytes. Nothing is stored on failure.
/// Returns the number that was used, or `unique` as it was given; 0 with `errno` on failure: a null pointer or a "/" in
/// the prefix (EINVAL), too long a directory (ENAMETOOLONG), the file cannot be made (ENOENT: no such directory), or
/// all 65,535 exist (EEXIST). Any thread may call. The file is the caller's to delete.
TRAIKLOFOX_C_API UINT GetTempFileName(const char* directory, const char* prefix, UINT unique, char* name);
