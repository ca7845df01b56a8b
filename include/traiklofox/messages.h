#pragma once

/// Formatting messages: texts of the application, of a message catalogue or of the system, with the caller's arguments
/// put in their places. And the memory that such a message may be stored in.

#include <traiklofox/types.h>

#include <cstdarg>

/// How `FormatMessage` works, combined by "|".
constexpr DWORD FORMAT_MESSAGE_ALLOCATE_BUFFER = 0x100;  ///< stores the message in new memory
constexpr DWORD FORMAT_MESSAGE_IGNORE_INSERTS = 0x200;   ///< "%1" and the like stay as they are
constexpr DWORD FORMAT_MESSAGE_FROM_STRING = 0x400;      ///< `source` is the text
constexpr DWORD FORMAT_MESSAGE_FROM_HMODULE = 0x800;     ///< `source` is a catalogue
constexpr DWORD FORMAT_MESSAGE_FROM_SYSTEM = 0x1000;     ///< the text of an error number
constexpr DWORD FORMAT_MESSAGE_ARGUMENT_ARRAY = 0x2000;  ///< `arguments` is an array
constexpr DWORD FORMAT_MESSAGE_MAX_WIDTH_MASK = 0xFF;    ///< the low byte, see `FormatMessage`

constexpr UINT LMEM_FIXED = 0;                     ///< as `malloc` gives it
constexpr UINT LMEM_ZEROINIT = 0x40;               ///< filled with 0
constexpr UINT LPTR = LMEM_FIXED | LMEM_ZEROINIT;  ///< both

/// Memory of `LocalAlloc`: its address.
typedef void* HLOCAL;

/// Formats a message of at most 65,535 characters.
///
/// flags       where the text comes from, one of:
///             - FORMAT_MESSAGE_FROM_STRING: `source` is the text, NUL-terminated.
///             - FORMAT_MESSAGE_FROM_HMODULE: `source` is a catalogue, the `nl_catd` that `catopen` gave. The message
///               has the number of `messageId`'s low 16 bits, in the set of the twelve bits above them (the facility;
///               0 stands for NL_SETD, the set of a catalogue without sets).
///             - FORMAT_MESSAGE_FROM_SYSTEM: the system's text for the error number `messageId`, as `GetLastError`
///               gives it, or for one of the library's own results. It has no line end and no inserts.
///             The last two together: the catalogue's, or, if it has none, the system's.
///             The low byte is a width, in characters. 0 leaves the text's line ends as they are. Otherwise they
///             count as blanks; with 1 to 254 lines are broken at blanks so that they have no more characters than
///             that, words that are longer excepted; 255 breaks no lines.
/// languageId  ignored: a catalogue has one language, and the system's texts are in the process's locale
/// buffer      of `size` bytes. With FORMAT_MESSAGE_ALLOCATE_BUFFER, points to an LPTSTR, which receives new memory
///             of at least `size` bytes that the caller frees by `LocalFree`.
/// arguments   what is inserted: a pointer to a `va_list`, whose value is then indeterminate; or, with
///             FORMAT_MESSAGE_ARGUMENT_ARRAY, an array of `DWORD_PTR`. Null when nothing is.
///
/// In the text stand for themselves all characters but these sequences:
///     %1 to %99        the argument of that number, a text
///     %1!format!       the argument printed as by `printf`, without the format's "%": flags, width, precision, one of
///                      the lengths hh h l ll w I I32 I64 j t z, and one of d i u o x X c C s S p. A "*" takes a
///                      further argument: `%2!*.*s!` takes a width from the second, a precision from the third and the
///                      text from the fourth. Width and precision are at most 65,535. A null text prints as "(null)".
///     %n, %r, %t       line feed (a hard one, which no width turns into a blank), carriage return, tab
///     %0               the end of the message
///     %% and others    the character behind the "%": "%%", "%!", "%.", "% "
/// Arguments are integers of a pointer's size, or pointers. On 32-bit x86 one of 64 bits (ll, I64, j) takes two places
/// in an array.
///
/// Returns the number of characters stored, without the NUL. 0 on failure, with nothing stored, and for an empty
/// message, with "" stored and `errno` 0. On failure `errno` is:
///     EINVAL  no source or several, a null pointer, an insert without `arguments`, a format that is none, a "%" at
///             the end
///     ENOENT  no such message
///     ERANGE  the message does not fit into `size`, or is too long
///     EILSEQ  a wide text that has no form in the locale
///     ENOMEM  no memory
/// Any thread may call. The arguments must be those that the text asks for, as with `printf`: take no text from
/// outside without FORMAT_MESSAGE_IGNORE_INSERTS.
///
/// Unlike Win32: a line end is one line feed, and the system's texts have none behind them.
TRAIKLOFOX_C_API DWORD FormatMessage(DWORD flags, LPCVOID source, DWORD messageId, DWORD languageId,
                                     LPTSTR buffer, DWORD size, va_list* arguments);

/// Returns `bytes` bytes of new memory, at least one, filled with 0 if `flags` has LMEM_ZEROINIT; null with ENOMEM when
/// there are none. Other flags are refused with EINVAL: memory never moves. Any thread may call.
TRAIKLOFOX_C_API HLOCAL LocalAlloc(UINT flags, SIZE_T bytes);

/// Frees what `LocalAlloc` or `FormatMessage` gave; null is ignored. Returns null. Any thread may call.
TRAIKLOFOX_C_API HLOCAL LocalFree(HLOCAL memory);
