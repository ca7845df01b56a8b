#pragma once

namespace traiklofox::registry {

/// Locks every key of the tree, from the root down, and the numbers in use, so that a fork finds them whole;
/// the same thread unlocks them afterwards, in the parent and in the child.
void lockTreeForFork();
void unlockTreeAfterFork();

}  // namespace traiklofox::registry
