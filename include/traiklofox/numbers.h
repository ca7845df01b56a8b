#pragma once

/// Conversions of numbers to text, letter case in place, and random numbers. The buffers are the caller's and
/// must be large enough for the text and its NUL; 34 bytes always are.

#include <traiklofox/types.h>

/// Writes `value` in decimal (radix 10) or in lower-case hexadecimal, two's complement (radix 16), and
/// returns `buffer`. For any other radix, unlike the Win32 function, returns null and writes nothing.
TRAIKLOFOX_C_API char* itoa(int value, char* buffer, int radix);

/// As `itoa`, for 64 bits.
TRAIKLOFOX_C_API char* i64toa(long long value, char* buffer, int radix);

/// Writes `value` in a radix from 2 to 36 with lower-case digits, and returns `buffer`. Radix 16 and 8 write
/// the two's complement; 10 writes a minus sign.
///
/// Unlike the Win32 function, deliberately: every other radix drops the sign, 0 is the empty string except in
/// radix 8 and 16, and a radix outside 2 to 36 gives the empty string.
TRAIKLOFOX_C_API char* _ltoa(LONG value, char* buffer, int radix);

/// `_ltoa` under its other name.
TRAIKLOFOX_C_API char* fallback_ltoa(LONG value, char* buffer, int radix);

/// Changes `text` in place by the C library's `tolower`, byte by byte, and returns it.
TRAIKLOFOX_C_API char* _strlwr(char* text);

/// Changes `text` in place by the C library's `toupper`, byte by byte, and returns it.
TRAIKLOFOX_C_API char* _strupr(char* text);

/// A pseudo-random number from 0 to `bound` - 1, from a sequence of the calling thread's own, which starts
/// from the thread's id. Not for secrets. `bound` must not be 0; of a negative one the sign is ignored.
TRAIKLOFOX_API int KzRandom(int bound);
