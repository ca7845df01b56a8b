#pragma once

namespace traiklofox::registry {

/// Writes the tree to the registry file, under the exclusive cache lock, which it takes itself. Returns 1, or
/// 0 after a message on standard error; the old file then is in place and every change still marked.
int writeTree();

/// Removes the temporary files that processes left in the registry's directory when they died. Under the
/// exclusive cache lock: whoever makes such a file holds it.
void removeStaleTemporaryFiles();

}  // namespace traiklofox::registry
