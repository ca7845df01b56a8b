#pragma once

/// UUIDs: making, printing, reading and comparing them. Every function may be called by any thread; a null GUID
/// that is only read stands for the nil one, of zeros.

#include <traiklofox/types.h>

/// A UUID.
struct _GUID {
    DWORD Data1;    ///< the first eight digits of its text, as a number
    WORD Data2;     ///< the next four
    WORD Data3;     ///< the next four
    BYTE Data4[8];  ///< the last sixteen, in the text's order
};
typedef _GUID GUID;
typedef GUID UUID;
typedef GUID IID;
typedef GUID CLSID;
typedef GUID* LPGUID;

static_assert(sizeof(_GUID) == 16 && offsetof(_GUID, Data4) == 8);

/// Makes a UUID of the time, the process's clock sequence and the machine's host identifier (`gethostid`), and stores
/// it in `*out`. Returns 0, or 1 with `*out` as it was: there is no host identifier, the clock stands still, or `out`
/// is null.
///
/// No two calls of a process get the same, as long as the clock is not set back. A call in the very microsecond of the
/// one before sleeps a second, and so does who comes meanwhile: a caller in bulk makes one UUID and counts up fields
/// of its own. Two processes of one machine that called first in the same second, and call in the same microsecond,
/// get the same.
///
/// Unlike Win32, and deliberately: Data1 has the microseconds, Data2 and the low 12 bits of Data3 the seconds since
/// the Unix epoch, the version is 1, and the node is the host identifier and two zeros.
TRAIKLOFOX_C_API LONG UuidCreate(_GUID* out);

/// `UuidCreate`, by its other name; returns 0 or 1 as that does.
TRAIKLOFOX_C_API LONG CoCreateGuid(_GUID* out);

/// Stores the text of `uuid`, as 00000001-0002-0003-0405-060708090a0b in small letters, in `*out`. The text is the
/// caller's, who frees it by `RpcStringFree` or `free`. Returns 0; 1 when `out` is null; 2, with a null `*out`, when
/// there is no memory.
TRAIKLOFOX_C_API LONG UuidToString(const _GUID* uuid, unsigned char** out);

/// Reads a text as `UuidToString` makes it, in letters of any size, into `*out`. Returns 0; 1 with the nil UUID when
/// the text is null, empty or not of that form, or when `out` is null, which then stays so.
///
/// Deliberately, a text whose ninth character is no "-" is the nil UUID, and the result is 0. Fields are read as
/// `sscanf` does, with "%8lx-%4x-%4x-%2x%2x-%2x%2x%2x%2x%2x%2x": they may be shorter, have blanks in front, a sign
/// or "0x", and what follows the last one is ignored.
TRAIKLOFOX_C_API LONG UuidFromString(const unsigned char* text, _GUID* out);

/// Returns -1, 0 or 1 as `a` is less than, equal to or greater than `b`: field by field as unsigned numbers, then
/// byte by byte. Stores 0 in `*status` unless that is null.
TRAIKLOFOX_C_API INT UuidCompare(const _GUID* a, const _GUID* b, LONG* status);

/// Frees a text of `UuidToString` and returns 0. An empty text, which is not freed, and a null one give 1. The pointer
/// is not cleared: do not use it any more.
TRAIKLOFOX_C_API LONG RpcStringFree(unsigned char** text);
