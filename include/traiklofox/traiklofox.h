#pragma once

/// The whole library.

#include <traiklofox/dates.h>
#include <traiklofox/files.h>
#include <traiklofox/handles.h>
#include <traiklofox/internet.h>
#include <traiklofox/load_region.h>
#include <traiklofox/messages.h>
#include <traiklofox/primitives.h>
#include <traiklofox/processes.h>
#include <traiklofox/profiles.h>
#include <traiklofox/registry.h>
#include <traiklofox/strings.h>
#include <traiklofox/system_info.h>
#include <traiklofox/types.h>
#include <traiklofox/uuid.h>
