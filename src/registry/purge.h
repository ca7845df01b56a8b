#pragma once

namespace traiklofox::registry {

/// Removes from the tree what the last read of the file did not find: another process deleted it. What this
/// process has changed and not yet written stays, with the keys on the way to it.
void purgeTree();

}  // namespace traiklofox::registry
