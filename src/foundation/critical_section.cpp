// The recursive critical section. A thread compares itself with `owner` without holding the mutex: it can
// find itself there only if it wrote that value itself, and other threads' values are all alike to it, so
// that relaxed loads suffice and the mutex alone orders what the section guards.

#include <traiklofox/critical_section.h>

#include <errno.h>

namespace {

constexpr pthread_t kNobody = 0;

pthread_t ownerOf(const _critsection& section) {
    return __atomic_load_n(&section.owner, __ATOMIC_RELAXED);
}

void setOwner(_critsection& section, pthread_t owner) {
    __atomic_store_n(&section.owner, owner, __ATOMIC_RELAXED);
}

// Atomic for the sake of a thread that leaves a section of another's, and lets a third one in.
int countOf(const _critsection& section) {
    return __atomic_load_n(&section.count, __ATOMIC_RELAXED);
}

void setCount(_critsection& section, int count) {
    __atomic_store_n(&section.count, count, __ATOMIC_RELAXED);
}

// The owner comes last: from then on a stranger may leave the section and let another in, who counts for himself.
void own(_critsection& section, pthread_t owner) {
    setCount(section, 1);
    setOwner(section, owner);
}

/// Frees the section unless somebody else has done so since `owner` was seen there.
void disown(_critsection& section, pthread_t owner) {
    if (__atomic_compare_exchange_n(&section.owner, &owner, kNobody, /*weak=*/false, __ATOMIC_RELAXED,
                                    __ATOMIC_RELAXED))
        pthread_mutex_unlock(&section.mutex);
}

}  // namespace

int EnterCriticalSection(_critsection* section) {
    if (section == nullptr) return 0;
    const pthread_t self = pthread_self();
    if (ownerOf(*section) == self) {
        setCount(*section, countOf(*section) + 1);
        return 0;
    }
    if (pthread_mutex_lock(&section->mutex) == EINTR) return EINTR;
    own(*section, self);
    return 0;
}

int TryEnterCriticalSection(_critsection* section) {
    if (section == nullptr) return FALSE;
    const pthread_t self = pthread_self();
    if (ownerOf(*section) == self) {
        setCount(*section, countOf(*section) + 1);
        return TRUE;
    }
    if (pthread_mutex_trylock(&section->mutex) != 0) return FALSE;
    own(*section, self);
    return TRUE;
}

int LeaveCriticalSection(_critsection* section) {
    if (section == nullptr) return 0;
    const pthread_t owner = ownerOf(*section);
    if (owner == kNobody) return 0;  // unlocking a free mutex would be undefined
    if (owner == pthread_self()) {
        const int depth = countOf(*section);
        setCount(*section, depth - 1);
        if (depth > 1) return depth;
    }
    disown(*section, owner);
    return 0;
}

void InitializeCriticalSection(_critsection* section) {
    if (section != nullptr) *section = {};
}

void DeleteCriticalSection(_critsection* section) {
    InitializeCriticalSection(section);
}
