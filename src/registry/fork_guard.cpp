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

// The natives, because the check of the lock order is made for a few locks and not for a whole tree of them.
void lockTreeForFork() TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
    pthread_mutex_lock(RegKey::root().lock.native());
    std::vector<RegKey*>& keys = lockedKeys();
    keys.assign(1, &RegKey::root());
    for (size_t next = 0; next < keys.size(); ++next) {
        keys[next]->subkeys.inOrderOfCreation([&](const KeyRef& subkey) {
            pthread_mutex_lock(subkey->lock.native());
            keys.push_back(subkey.get());
        });
    }
    lockKeyNumbersForFork();
}

void unlockTreeAfterFork() TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
    unlockKeyNumbersAfterFork();
    std::vector<RegKey*>& keys = lockedKeys();
    while (keys.size() > 1) {
        pthread_mutex_unlock(keys.back()->lock.native());
        keys.pop_back();
    }
    keys.clear();
    pthread_mutex_unlock(RegKey::root().lock.native());
}

}  // namespace traiklofox::registry
