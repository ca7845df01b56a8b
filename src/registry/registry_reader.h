#pragma once

#include <traiklofox/strings.h>

namespace traiklofox::registry {

enum class Purging { No, Yes };

/// Reads the registry file into the tree, under the exclusive cache lock, which it takes itself; with
/// purging, what is no longer in the file goes. Returns 1, or 0 when the file cannot be opened. The tree
/// counts as read only after a file has been read to its end: one that cannot be is reported on standard
/// error, once for the same trouble.
int readTree(Purging purging);

/// Remembers an open file as the one that the tree agrees with. `fileIsKnown` is true while no other is at `path`, nor
/// that one changed: the stamp does not tell of a file that somebody put there who is no user of this library, nor do
/// those tell that count on another page of shared memory. It is true also when there is none: then there is nothing
/// that a write could lose. Under the exclusive cache lock.
void rememberFile(int fd);
bool fileIsKnown(const CKZString& path);

}  // namespace traiklofox::registry
