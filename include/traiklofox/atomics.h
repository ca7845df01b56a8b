#pragma once

/// Atomic 32-bit counters. All functions are sequentially consistent, lock-free, and safe from any thread and
/// in signal handlers; none fails or touches `errno`. Sums wrap modulo 2^32.

#include <traiklofox/types.h>

/// Adds `delta` to `*target`. Returns the old value when `returnOld` is non-zero, else the new one.
TRAIKLOFOX_API LONG AtomicAdd32(LONG* target, LONG delta, int returnOld);

/// Stores `value` in `*target` and returns the old value.
TRAIKLOFOX_API LONG AtomicExchange32(LONG* target, LONG value);

/// Adds 1 and returns the new value.
TRAIKLOFOX_C_API LONG InterlockedIncrement(volatile LONG* target);

/// Subtracts 1 and returns the new value.
TRAIKLOFOX_C_API LONG InterlockedDecrement(volatile LONG* target);

/// Adds `delta` and returns the old value.
TRAIKLOFOX_C_API LONG InterlockedExchangeAdd(volatile LONG* target, LONG delta);

/// Stores `value` and returns the old value.
TRAIKLOFOX_C_API LONG InterlockedExchange(volatile LONG* target, LONG value);

/// Stores `value` if `*target` equals `comparand`. Returns the old value either way.
TRAIKLOFOX_C_API LONG InterlockedCompareExchange(volatile LONG* target, LONG value, LONG comparand);

/// A mutex for the application's own use. The library never takes it: the functions above need no lock.
extern TRAIKLOFOX_API pthread_mutex_t hInterlockMutex;
