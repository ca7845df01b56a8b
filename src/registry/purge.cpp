#include "registry/purge.h"

#include <vector>

#include "registry/reg_key.h"

namespace traiklofox::registry {

namespace {

using foundation::LockGuard;

/// Every key, each before those below it.
std::vector<KeyRef> allKeys() {
    std::vector<KeyRef> keys;
    keys.emplace_back(&RegKey::root());
    for (size_t next = 0; next < keys.size(); ++next) {
        const KeyRef key = keys[next];
        const LockGuard guard(key->lock);
        key->subkeys.inOrderOfCreation([&](RegKey& subkey) { keys.emplace_back(&subkey); });
    }
    return keys;
}

/// Removes the key's stale values; returns the key, out of the tree, when it is to go itself.
KeyRef purgeKey(RegKey& key) {
    if (key.parent() == nullptr) return KeyRef();
    RegKey& parent = *key.parent();
    const LockGuard guard(parent.lock);
    return parent.purgeSubkey(key);
}

}  // namespace

void purgeTree() {
    std::vector<KeyRef> keys = allKeys();
    while (!keys.empty()) {
        KeyRef removed = purgeKey(*keys.back());
        keys.pop_back();
        if (removed) RegKey::dismantle(std::move(removed));
    }
}

}  // namespace traiklofox::registry
