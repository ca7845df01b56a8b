#pragma once

/// Locks. This header only gathers those of its family.

#include <traiklofox/rwlock.h>
#include <traiklofox/semaphores.h>
