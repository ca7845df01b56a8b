#pragma once

// The handle of a directory that `CreateFile` opens.

#include <traiklofox/handle.h>

namespace traiklofox::files {

/// A change notification handle on the directory `path`, with no filter and without its subtree; null, with
/// errno, when it cannot be made.
Handle* openChangeNotification(const char* path);

}  // namespace traiklofox::files
