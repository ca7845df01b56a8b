#pragma once

/// The recursive lock of Win32, for the threads of one process.
///
/// A zero-filled `_critsection` is a free one, ready for use; there is nothing to create and nothing to
/// delete. All functions tolerate a null pointer. A section must stay where it is while any thread uses it,
/// and is not for use in signal handlers.

#include <traiklofox/types.h>

#include <type_traits>

/// A critical section. Its fields are the library's; they are public for their layout.
struct _critsection {
    pthread_t owner;        ///< 0 when free
    int count;              ///< the owner's depth
    pthread_mutex_t mutex;  ///< held while the section is owned
};
typedef _critsection CRITICAL_SECTION;
typedef CRITICAL_SECTION* PCRITICAL_SECTION;
typedef CRITICAL_SECTION* LPCRITICAL_SECTION;

static_assert(std::is_trivial_v<_critsection> && std::is_standard_layout_v<_critsection>);
static_assert(offsetof(_critsection, count) == sizeof(pthread_t));

/// Waits until the section is free and takes it, or goes one level deeper when the caller has it already,
/// which touches no lock. Returns 0 (for a null pointer too), or EINTR without taking it should the system's
/// mutex ever be interrupted; Linux's is not.
TRAIKLOFOX_C_API int EnterCriticalSection(_critsection* section);

/// As `EnterCriticalSection`, but returns at once. Returns 1 when the caller has the section now, 0 when
/// another thread has it or the pointer is null.
TRAIKLOFOX_C_API int TryEnterCriticalSection(_critsection* section);

/// Goes up one level, and at the outermost one frees the section. Returns the depth before the call while the
/// section stays held, 0 when it is free now.
///
/// Unlike Win32: a call from a thread that does not have the section frees it at once, at whatever depth its
/// owner is. Nothing checks for this; what the owner was guarding is then unguarded.
TRAIKLOFOX_C_API int LeaveCriticalSection(_critsection* section);

/// Makes the section a free one, by zeroing it. Only for a section that nobody has or waits for.
TRAIKLOFOX_C_API void InitializeCriticalSection(_critsection* section);

/// The same as `InitializeCriticalSection`: a section holds no resources, and may be used again afterwards.
TRAIKLOFOX_C_API void DeleteCriticalSection(_critsection* section);
