#pragma once

/// The small pieces under everything else. This header only gathers those of its family.

#include <traiklofox/assertions.h>
#include <traiklofox/atomics.h>
#include <traiklofox/clocks.h>
#include <traiklofox/critical_section.h>
#include <traiklofox/diagnostics.h>
#include <traiklofox/memory_blocks.h>
#include <traiklofox/numbers.h>
#include <traiklofox/time_conversion.h>
