#pragma once

#include <traiklofox/handle.h>

namespace traiklofox::soak {

/// The mapping in which all that use files count; the caller closes it.
Handle* openCounter();

}  // namespace traiklofox::soak
