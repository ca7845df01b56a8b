// The Win32 atomics, each one compiler builtin.

#include <traiklofox/atomics.h>

pthread_mutex_t hInterlockMutex = PTHREAD_MUTEX_INITIALIZER;

LONG AtomicAdd32(LONG* target, LONG delta, int returnOld) {
    return returnOld != 0 ? __atomic_fetch_add(target, delta, __ATOMIC_SEQ_CST)
                          : __atomic_add_fetch(target, delta, __ATOMIC_SEQ_CST);
}

LONG AtomicExchange32(LONG* target, LONG value) {
    return __atomic_exchange_n(target, value, __ATOMIC_SEQ_CST);
}

LONG InterlockedIncrement(volatile LONG* target) {
    return __atomic_add_fetch(target, 1, __ATOMIC_SEQ_CST);
}

LONG InterlockedDecrement(volatile LONG* target) {
    return __atomic_sub_fetch(target, 1, __ATOMIC_SEQ_CST);
}

LONG InterlockedExchangeAdd(volatile LONG* target, LONG delta) {
    return __atomic_fetch_add(target, delta, __ATOMIC_SEQ_CST);
}

LONG InterlockedExchange(volatile LONG* target, LONG value) {
    return __atomic_exchange_n(target, value, __ATOMIC_SEQ_CST);
}

LONG InterlockedCompareExchange(volatile LONG* target, LONG value, LONG comparand) {
    __atomic_compare_exchange_n(target, &comparand, value, /*weak=*/false, __ATOMIC_SEQ_CST,
                                __ATOMIC_SEQ_CST);
    return comparand;  // holds the old value now if that differed
}
