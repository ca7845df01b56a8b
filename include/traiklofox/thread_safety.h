#pragma once

/// Clang's thread-safety attributes, for the members of public classes. They vanish under other compilers.

#if defined(__clang__)
#define TRAIKLOFOX_ATTRIBUTE(x) __attribute__((x))
#else
#define TRAIKLOFOX_ATTRIBUTE(x)
#endif

#define TRAIKLOFOX_CAPABILITY(name) TRAIKLOFOX_ATTRIBUTE(capability(name))
#define TRAIKLOFOX_SCOPED_CAPABILITY TRAIKLOFOX_ATTRIBUTE(scoped_lockable)
#define TRAIKLOFOX_GUARDED_BY(x) TRAIKLOFOX_ATTRIBUTE(guarded_by(x))
#define TRAIKLOFOX_PT_GUARDED_BY(x) TRAIKLOFOX_ATTRIBUTE(pt_guarded_by(x))
#define TRAIKLOFOX_REQUIRES(...) TRAIKLOFOX_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define TRAIKLOFOX_EXCLUDES(...) TRAIKLOFOX_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define TRAIKLOFOX_ACQUIRE(...) TRAIKLOFOX_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define TRAIKLOFOX_RELEASE(...) TRAIKLOFOX_ATTRIBUTE(release_capability(__VA_ARGS__))
#define TRAIKLOFOX_TRY_ACQUIRE(...) TRAIKLOFOX_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define TRAIKLOFOX_RETURN_CAPABILITY(x) TRAIKLOFOX_ATTRIBUTE(lock_returned(x))
#define TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS TRAIKLOFOX_ATTRIBUTE(no_thread_safety_analysis)
