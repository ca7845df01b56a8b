#pragma once

namespace traiklofox::registry {

enum class Purging { No, Yes };

/// Reads the registry file into the tree, under the exclusive cache lock, which it takes itself; with
/// purging, what is no longer in the file goes. Returns 1, or 0 when the file cannot be opened. The tree
/// counts as read only after a file has been read to its end: one that cannot be is reported on standard
/// error, once for the same trouble.
int readTree(Purging purging);

}  // namespace traiklofox::registry
