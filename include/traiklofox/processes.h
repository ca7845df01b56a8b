#pragma once

/// Processes. This header only gathers those of its family.

#include <traiklofox/process.h>
#include <traiklofox/process_list.h>
