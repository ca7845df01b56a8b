#pragma once

/// Locks, timers and the thread pool. This header only gathers those of its family.

#include <traiklofox/rwlock.h>
#include <traiklofox/semaphores.h>
#include <traiklofox/thread_pool.h>
#include <traiklofox/timers.h>
