#pragma once

/// Locks and timers. This header only gathers those of its family.

#include <traiklofox/rwlock.h>
#include <traiklofox/semaphores.h>
#include <traiklofox/timers.h>
