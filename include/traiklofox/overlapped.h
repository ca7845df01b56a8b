#pragma once

/// The record that a call leaves behind when its work goes on without it.

#include <traiklofox/types.h>

constexpr ULONG_PTR STATUS_PENDING = 0x103;  ///< `_OVERLAPPED::Internal` while the work goes on

/// Zero-fill it before use. It must stay where it is until the work is done or its handle is closed.
struct _OVERLAPPED {
    ULONG_PTR Internal;      ///< STATUS_PENDING, then 0: the library's
    ULONG_PTR InternalHigh;  ///< the number of bytes delivered: the library's
    union {
        __extension__ struct {
            DWORD Offset;
            DWORD OffsetHigh;
        };
        PVOID Pointer;
    };
    HANDLE hEvent;  ///< set when the work is done; null for none. The caller's own.
};
typedef _OVERLAPPED OVERLAPPED;
typedef _OVERLAPPED* LPOVERLAPPED;

/// Called when work that was begun with an `_OVERLAPPED` is done: its error (always 0) and its number of bytes.
typedef void (*LPOVERLAPPED_COMPLETION_ROUTINE)(DWORD error, DWORD bytes, _OVERLAPPED* overlapped);
