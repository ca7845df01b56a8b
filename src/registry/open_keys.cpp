#include "registry/open_keys.h"

#include <unordered_map>
#include <utility>

#include "registry/key_numbers.h"

namespace traiklofox::registry {

namespace {

using foundation::LockGuard;

struct OpenKey {
    KeyRef key;
    int opens = 0;
};

constinit foundation::Mutex<foundation::LockRank::OpenKeys> openKeysLock;

std::unordered_map<LONG, OpenKey>& OpenKeyMap() TRAIKLOFOX_REQUIRES(openKeysLock) {
    static auto& map = *new std::unordered_map<LONG, OpenKey>;
    return map;
}

KeyRef findLocked(HKEY handle) TRAIKLOFOX_REQUIRES(openKeysLock) {
    const auto found = OpenKeyMap().find(handle & kNumberMask);
    return found != OpenKeyMap().end() ? found->second.key : KeyRef();
}

/// True when the key cannot be opened under its number.
bool needsNewNumber(const RegKey& key) TRAIKLOFOX_REQUIRES(openKeysLock, key.lock) {
    if (!isHandleNumber(key.sequence())) return true;
    const KeyRef holder = findLocked(key.sequence());
    return holder && holder.get() != &key;
}

LONG unusedNumber() TRAIKLOFOX_REQUIRES(openKeysLock) {
    LONG number = GetUniqueKey();
    while (findLocked(number)) number = GetUniqueKey();
    return number;
}

}  // namespace

std::optional<LONG> openHandle(const KeyRef& key) {
    const LockGuard mapGuard(openKeysLock);
    const LockGuard keyGuard(key->lock);
    if (key->isDead()) return std::nullopt;
    if (needsNewNumber(*key)) key->setSequence(unusedNumber());
    OpenKey& open = OpenKeyMap()[key->sequence()];
    if (open.opens == 0) open.key = key;
    ++open.opens;
    return key->sequence();
}

KeyRef closeHandle(HKEY handle) {
    const LockGuard guard(openKeysLock);
    const auto found = OpenKeyMap().find(handle & kNumberMask);
    if (found == OpenKeyMap().end()) return KeyRef();
    if (--found->second.opens > 0) return found->second.key;
    KeyRef closed = std::move(found->second.key);
    OpenKeyMap().erase(found);
    return closed;
}

KeyRef keyOf(HKEY handle) {
    const LockGuard guard(openKeysLock);
    return findLocked(handle);
}

KeyRef lockKeyOf(HKEY handle) {
    KeyRef key;
    {
        const LockGuard guard(openKeysLock);
        key = findLocked(handle);
        if (!key) return key;
        key->lock.lock();
    }
    if (!key->isDead()) return key;
    key->lock.unlock();
    return KeyRef();
}

void lockOpenKeysForFork() TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
    openKeysLock.lock();
}
void unlockOpenKeysAfterFork() TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
    openKeysLock.unlock();
}

}  // namespace traiklofox::registry
