#pragma once

/// Kernel objects and waiting: handles, events, threads and asynchronous calls, locks.

#include <traiklofox/events.h>
#include <traiklofox/handle.h>
#include <traiklofox/synch.h>
#include <traiklofox/threads.h>
#include <traiklofox/wait.h>
