#pragma once

/// The Win32 scalar types, records and constants that several families share.
///
/// Every type keeps its Win32 width on both word sizes: a `LONG` or `DWORD` is 32 bits wide, a pointer-sized
/// integer is `ULONG_PTR`. On 32-bit x86 `LONG` is `long` and `DWORD` is `unsigned long`, so that callers who
/// spell those types link unchanged.

#include <pthread.h>
#include <time.h>

#include <cstddef>
#include <cstdint>

/// Marks what the library exports.
#define TRAIKLOFOX_API __attribute__((visibility("default")))
/// Marks what it exports with C linkage.
#define TRAIKLOFOX_C_API extern "C" TRAIKLOFOX_API

/// A calling convention, as are the next two: there is only one here.
#define WINAPI
/// See `WINAPI`.
#define CALLBACK
/// See `WINAPI`.
#define APIENTRY

/// A `BOOL` that is true, as is any but 0.
#ifndef TRUE
#define TRUE 1
#endif
/// A `BOOL` that is false.
#ifndef FALSE
#define FALSE 0
#endif

/// 32 bits on both word sizes, signed and unsigned.
#if __SIZEOF_LONG__ == 4
typedef long LONG;
typedef unsigned long ULONG;
#else
typedef int LONG;
typedef unsigned int ULONG;
#endif

/// Win32's scalar types in their Win32 widths.
typedef ULONG DWORD;
typedef DWORD LCID;
typedef int BOOL;
typedef int INT;
typedef unsigned int UINT;
typedef short SHORT;
typedef unsigned short WORD;
typedef unsigned short USHORT;
typedef unsigned char BYTE;
typedef unsigned char UCHAR;
typedef char CHAR;
typedef char TCHAR;
typedef void VOID;
typedef long long LONGLONG;
typedef unsigned long long ULONGLONG;
typedef ULONGLONG DWORDLONG;
typedef unsigned long ULONG_PTR;
typedef long LONG_PTR;
typedef ULONG_PTR DWORD_PTR;
typedef unsigned long SIZE_T;

/// Pointers to them.
typedef void* PVOID;
typedef void* LPVOID;
typedef const void* LPCVOID;
typedef BOOL* LPBOOL;
typedef BYTE* PBYTE;
typedef BYTE* LPBYTE;
typedef WORD* LPWORD;
typedef LONG* PLONG;
typedef LONG* LPLONG;
typedef DWORD* PDWORD;
typedef DWORD* LPDWORD;
typedef char* LPSTR;
typedef const char* LPCSTR;
typedef char* LPTSTR;
typedef const char* LPCTSTR;

class Handle;

/// A kernel object or file: a pointer to its class.
typedef Handle* HANDLE;
typedef HANDLE* PHANDLE;
typedef HANDLE* LPHANDLE;

/// The handle that stands for "no handle" where a null one means something else. Every function that takes a
/// handle treats it as a null handle.
#define INVALID_HANDLE_VALUE (reinterpret_cast<Handle*>(static_cast<LONG_PTR>(-1)))

/// A literal of `TCHAR`, which is `char` here.
#ifndef _T
#define _T(text) text
#endif
/// See `_T`.
#ifndef TEXT
#define TEXT(text) text
#endif

constexpr DWORD INFINITE = 0xFFFFFFFF;  ///< a time-out that never passes

/// Longest path with its terminating NUL, in bytes.
#ifndef MAX_PATH
#define MAX_PATH 4096
#endif

/// A count of 100-nanosecond intervals since 1601-01-01 00:00 UTC, as two words.
struct _FILETIME {
    DWORD dwLowDateTime;   ///< the low 32 bits
    DWORD dwHighDateTime;  ///< the high 32 bits
};
typedef _FILETIME FILETIME;
typedef FILETIME* PFILETIME;
typedef FILETIME* LPFILETIME;

/// A calendar date and time of day.
struct _SYSTEMTIME {
    WORD wYear;          ///< the full year
    WORD wMonth;         ///< 1 to 12
    WORD wDayOfWeek;     ///< 0 is Sunday
    WORD wDay;           ///< 1 to 31
    WORD wHour;          ///< 0 to 23
    WORD wMinute;        ///< 0 to 59
    WORD wSecond;        ///< 0 to 59
    WORD wMilliseconds;  ///< 0 to 999
};
typedef _SYSTEMTIME SYSTEMTIME;
typedef SYSTEMTIME* PSYSTEMTIME;
typedef SYSTEMTIME* LPSYSTEMTIME;

/// Accepted wherever Win32 takes one, and ignored: Unix permissions decide.
struct _SECURITY_ATTRIBUTES {
    DWORD nLength;                ///< the record's size
    LPVOID lpSecurityDescriptor;  ///< not looked at
    BOOL bInheritHandle;          ///< not looked at
};
typedef _SECURITY_ATTRIBUTES SECURITY_ATTRIBUTES;
typedef SECURITY_ATTRIBUTES* PSECURITY_ATTRIBUTES;
typedef SECURITY_ATTRIBUTES* LPSECURITY_ATTRIBUTES;

// `timespec` crosses the library's boundary, and the 32-bit library is built with the 32-bit one.
static_assert(sizeof(time_t) == sizeof(long),
              "build 32-bit applications of traiklofox without _TIME_BITS=64");

static_assert(sizeof(LONG) == 4 && sizeof(DWORD) == 4 && sizeof(ULONG_PTR) == sizeof(void*));
