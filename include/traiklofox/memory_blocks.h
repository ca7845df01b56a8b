#pragma once

/// The Win32 short forms for whole blocks of memory.

#include <traiklofox/types.h>

#include <cstring>

/// Fills `length` bytes with 0.
inline void ZeroMemory(PVOID destination, SIZE_T length) {
    std::memset(destination, 0, length);
}

/// Fills `length` bytes with `fill`.
inline void FillMemory(PVOID destination, SIZE_T length, BYTE fill) {
    std::memset(destination, fill, length);
}

/// Copies `length` bytes between blocks that do not overlap.
inline void CopyMemory(PVOID destination, LPCVOID source, SIZE_T length) {
    std::memcpy(destination, source, length);
}

/// Copies `length` bytes between blocks that may overlap.
inline void MoveMemory(PVOID destination, LPCVOID source, SIZE_T length) {
    std::memmove(destination, source, length);
}
