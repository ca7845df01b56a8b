#pragma once

#include <traiklofox/strings.h>

namespace traiklofox::registry {

/// Gives an open file the owner, group and mode that the template has. False, with errno, when it keeps another mode:
/// then some could read what they may not, or others not what they need. Only root may give a file away; for others it
/// stays as they made it.
bool giveToRegistryOwner(int fd);

/// Copies `from` to the new file `to`, which nobody but its maker can read until it has its owner and mode, and puts it
/// on the disk. False with errno, at once also when there is no descriptor left; there may then be a part of it.
bool copyForRegistryOwner(const CKZString& from, const CKZString& to);

}  // namespace traiklofox::registry
