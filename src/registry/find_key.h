#pragma once

// The walk along a path.

#include <string_view>

#include "registry/reg_key.h"

namespace traiklofox::registry {

enum class Walk {
    LookUp,    // nothing is made
    Create,    // for a caller: what is missing is made, and the key is one in its own right from then on
    FromFile,  // for a line of the file: what is missing is made unless it was deleted here; all on the way
               // is stamped
};

struct FoundKey {
    KeyRef key;  // null: not there, or not to be made
    bool created = false;
};

/// Walks `path` from `start`, components separated by backslashes (several count as one), letter case ignored;
/// without a component, and from a dead key, it leads nowhere. Locks hand over hand, from there down; none is held
/// on return, so that the key found may be dead by the time it is locked. Only a walk from the root makes keys: they
/// get `sequence`, and the whole path as their name; with -1 the walk draws one, which all keys that it makes share.
FoundKey FindKey(RegKey& start, std::string_view path, Walk walk, LONG sequence = -1);

/// A look-up from a key that is locked and not dead, whose lock it lets go.
KeyRef lookUpFromLocked(RegKey& start, std::string_view path) TRAIKLOFOX_RELEASE(start.lock);

/// FindKey's walk along the part of `path` behind its first `passed` characters, which lead from the root to `start`.
FoundKey FindKeyBehind(RegKey& start, std::string_view path, size_t passed, Walk walk, LONG sequence = -1);

/// How many components a path has.
size_t depthOf(std::string_view path);

/// `path` with single backslashes, and none at its ends.
CKZString normalizedPath(std::string_view path);

/// Splits a path at its last backslash: what is before it, and the last component.
std::pair<std::string_view, std::string_view> splitLast(std::string_view path);

}  // namespace traiklofox::registry
