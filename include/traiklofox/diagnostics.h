#pragma once

/// Error reports, error numbers, and the last error.

#include <traiklofox/types.h>

/// Results of the library's functions that are not errno values. -1 is every other failure.
constexpr LONG ERROR_SUCCESS = 0;
constexpr LONG ERROR_INVALID_DATA = 13;    ///< no such key or value
constexpr LONG ERROR_MORE_DATA = 234;      ///< the caller's buffer is too small
constexpr LONG ERROR_NO_MORE_ITEMS = 259;  ///< the end of an enumeration

/// Prints the formatted text, of any length, to standard error, in one piece, so that the reports of several
/// threads and processes do not mix. The text is then read once more: `%%` in it becomes `%`; any other `%`,
/// of a path say, stands for itself. Safe from any thread; leaves `errno` alone. Under want of memory a text
/// longer than 4095 bytes is cut.
TRAIKLOFOX_API void unix_err(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// The calling thread's `errno`: unlike Win32, its numbers are the system's.
TRAIKLOFOX_C_API DWORD GetLastError();

/// Sets the calling thread's `errno`.
TRAIKLOFOX_C_API void SetLastError(DWORD error);
