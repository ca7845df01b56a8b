#include "registry/fork_guard.h"

#include <vector>

#include "registry/key_numbers.h"
#include "registry/reg_key.h"

namespace traiklofox::registry {

namespace {

/// The keys that the forking thread has locked; under the root's lock.
std::vector<RegKey*>& lockedKeys() {
    static auto& keys = *new std::vector<RegKey*>;
    return keys;
}

}  // namespace

void lockTreeForFork() TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
    RegKey::root().lock.lockUnchecked();
    std::vector<RegKey*>& keys = lockedKeys();
    keys.assign(1, &RegKey::root());
    for (size_t next = 0; next < keys.size(); ++next) {
        keys[next]->subkeys.inOrderOfCreation([&](RegKey& subkey) {
            subkey.lock.lockUnchecked();
            keys.push_back(&subkey);
        });
    }
    lockKeyNumbersForFork();
}

void unlockTreeAfterFork() TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
    unlockKeyNumbersAfterFork();
    std::vector<RegKey*>& keys = lockedKeys();
    while (keys.size() > 1) {
        keys.back()->lock.unlockUnchecked();
        keys.pop_back();
    }
    keys.clear();
    RegKey::root().lock.unlockUnchecked();
}

}  // namespace traiklofox::registry
