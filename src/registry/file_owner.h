#pragma once

#include <traiklofox/registry.h>

#include "foundation/sys.h"

namespace traiklofox::registry {

/// Gives a file the owner, group and mode that the template has. Only root may give a file away; for others
/// the file stays as they made it.
inline void giveToRegistryOwner(const CKZString& path) {
    (void)sys::chown(path.c_str(), KzUserId, KzGroupId);
    (void)sys::chmod(path.c_str(), KzFileMode);
}

}  // namespace traiklofox::registry
