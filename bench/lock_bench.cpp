// lock_bench.cpp: critical sections and reader-writer locks, by one thread and by two.

#include <pthread.h>
#include <traiklofox/critical_section.h>
#include <traiklofox/rwlock.h>

#include "support/floor.h"

namespace traiklofox::bench {
namespace {

// Shared by the threads of one benchmark.
constinit _critsection sharedSection{};
constinit pthread_mutex_t sharedMutex = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
constinit pthread_rwlock_t sharedNativeLock = PTHREAD_RWLOCK_INITIALIZER;
RWLock& sharedLock() {
    static auto& made = *new RWLock{/*readerPriority=*/true};
    return made;
}
constinit long guarded = 0;

constexpr int kDepth = 3;

void enterAndLeave(benchmark::State& state) {
    for (auto _ : state) {
        EnterCriticalSection(&sharedSection);
        benchmark::DoNotOptimize(++guarded);
        LeaveCriticalSection(&sharedSection);
    }
}
void lockRecursive(benchmark::State& state) {
    for (auto _ : state) {
        pthread_mutex_lock(&sharedMutex);
        benchmark::DoNotOptimize(++guarded);
        pthread_mutex_unlock(&sharedMutex);
    }
}

void enterDeeper(benchmark::State& state) {
    EnterCriticalSection(&sharedSection);
    for (auto _ : state) {
        for (int i = 0; i < kDepth; ++i) EnterCriticalSection(&sharedSection);
        for (int i = 0; i < kDepth; ++i) LeaveCriticalSection(&sharedSection);
    }
    LeaveCriticalSection(&sharedSection);
}
void lockRecursiveDeeper(benchmark::State& state) {
    pthread_mutex_lock(&sharedMutex);
    for (auto _ : state) {
        for (int i = 0; i < kDepth; ++i) pthread_mutex_lock(&sharedMutex);
        for (int i = 0; i < kDepth; ++i) pthread_mutex_unlock(&sharedMutex);
    }
    pthread_mutex_unlock(&sharedMutex);
}

void readLock(benchmark::State& state) {
    RWLock& lock = sharedLock();
    for (auto _ : state) {
        lock.ReadLock();
        benchmark::DoNotOptimize(guarded);
        lock.ReadUnlock();
    }
}
void nativeReadLock(benchmark::State& state) {
    for (auto _ : state) {
        pthread_rwlock_rdlock(&sharedNativeLock);
        benchmark::DoNotOptimize(guarded);
        pthread_rwlock_unlock(&sharedNativeLock);
    }
}

void writeLock(benchmark::State& state) {
    RWLock& lock = sharedLock();
    for (auto _ : state) {
        lock.WriteLock();
        benchmark::DoNotOptimize(++guarded);
        lock.WriteUnlock();
    }
}
void nativeWriteLock(benchmark::State& state) {
    for (auto _ : state) {
        pthread_rwlock_wrlock(&sharedNativeLock);
        benchmark::DoNotOptimize(++guarded);
        pthread_rwlock_unlock(&sharedNativeLock);
    }
}

constexpr int kReadsPerWrite = 9;

void mixedUse(benchmark::State& state) {
    RWLock& lock = sharedLock();
    for (auto _ : state) {
        for (int i = 0; i < kReadsPerWrite; ++i) {
            lock.ReadLock();
            benchmark::DoNotOptimize(guarded);
            lock.ReadUnlock();
        }
        lock.WriteLock();
        benchmark::DoNotOptimize(++guarded);
        lock.WriteUnlock();
    }
}
void nativeMixedUse(benchmark::State& state) {
    for (auto _ : state) {
        for (int i = 0; i < kReadsPerWrite; ++i) {
            pthread_rwlock_rdlock(&sharedNativeLock);
            benchmark::DoNotOptimize(guarded);
            pthread_rwlock_unlock(&sharedNativeLock);
        }
        pthread_rwlock_wrlock(&sharedNativeLock);
        benchmark::DoNotOptimize(++guarded);
        pthread_rwlock_unlock(&sharedNativeLock);
    }
}

void byOneAndByTwo(benchmark::internal::Benchmark& runs) {
    runs.Threads(1)->Threads(2);
}

const Comparison kCriticalSection{{
    .operation = "critical section: enter, leave",
    .body = enterAndLeave,
    .floor = "recursive mutex",
    .floorBody = lockRecursive,
    .configure = byOneAndByTwo,
}};
const Comparison kNestedSection{{
    .operation = "critical section: three levels deeper and back",
    .body = enterDeeper,
    .floor = "recursive mutex",
    .floorBody = lockRecursiveDeeper,
}};
const Comparison kReadLock{{
    .operation = "reader-writer lock: read",
    .body = readLock,
    .floor = "pthread_rwlock",
    .floorBody = nativeReadLock,
    .configure = byOneAndByTwo,
}};
const Comparison kWriteLock{{
    .operation = "reader-writer lock: write",
    .body = writeLock,
    .floor = "pthread_rwlock",
    .floorBody = nativeWriteLock,
    .configure = byOneAndByTwo,
}};
const Comparison kMixedUse{{
    .operation = "reader-writer lock: nine reads and a write",
    .body = mixedUse,
    .floor = "pthread_rwlock",
    .floorBody = nativeMixedUse,
    .configure = byOneAndByTwo,
}};

}  // namespace
}  // namespace traiklofox::bench
