#pragma once

#include "registry/reg_key.h"

namespace traiklofox::registry {

/// Called when a key's changes are about to be written, for those who watch the key and its parent.
void wakeWatchers(RegKey& key);

}  // namespace traiklofox::registry
