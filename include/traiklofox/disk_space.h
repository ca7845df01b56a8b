#pragma once

/// The space on a file system.

#include <traiklofox/types.h>

/// A 64-bit number, whole or in two words.
union _ULARGE_INTEGER {
    struct {
        DWORD LowPart;   ///< the low 32 bits
        DWORD HighPart;  ///< the high 32 bits
    } u;                 ///< the two words, named
    struct {
        DWORD LowPart;
        DWORD HighPart;
    };
    ULONGLONG QuadPart;  ///< all 64 bits
};
typedef _ULARGE_INTEGER ULARGE_INTEGER;
typedef ULARGE_INTEGER* PULARGE_INTEGER;

/// Tells the space on the file system that `path` is on, in bytes. A pointer may be null.
///
/// available  gets what is free to users without privileges
/// total      gets the file system's size
/// free       gets all that is free
/// Returns TRUE, or FALSE with `errno` and a message on standard error (of a null path, only EINVAL); nothing is
/// stored then. Any thread may call.
///
/// Unlike Win32, deliberately: each number is cut to its low 32 bits, so it wraps every 4 GiB.
TRAIKLOFOX_C_API BOOL GetDiskFreeSpaceEx(const char* path, _ULARGE_INTEGER* available, _ULARGE_INTEGER* total,
                                         _ULARGE_INTEGER* free);
