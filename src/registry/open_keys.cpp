#include "registry/open_keys.h"

#include <memory>
#include <utility>

#include "foundation/mutex.h"
#include "foundation/small_mutex.h"
#include "registry/flat_index.h"
#include "registry/key_numbers.h"

namespace traiklofox::registry {

namespace {

using foundation::LockGuard;

constinit foundation::SmallMutex<foundation::LockRank::OpenKeys> openKeysLock;

/// The open keys by number. A key's own entry is in the key, so that opening one allocates nothing.
FlatIndex<RegKey>& OpenKeyMap() TRAIKLOFOX_REQUIRES(openKeysLock) {
    static constinit FlatIndex<RegKey>* map = nullptr;  // made once, never destroyed
    if (map == nullptr) map = std::make_unique<FlatIndex<RegKey>>().release();
    return *map;
}

std::uint32_t hashOf(LONG number) {
    const std::uint32_t mixed = static_cast<std::uint32_t>(number) * 2654435761U;
    return mixed ^ (mixed >> 15);
}

/// Null when no open key has the handle's number.
RegKey* findLocked(HKEY handle) TRAIKLOFOX_REQUIRES(openKeysLock) {
    const LONG number = handle & kNumberMask;
    return OpenKeyMap().find(hashOf(number), [=](const RegKey& key) { return key.open.number == number; });
}

LONG unusedNumber() TRAIKLOFOX_REQUIRES(openKeysLock) {
    LONG number = GetUniqueKey();
    while (findLocked(number) != nullptr) number = GetUniqueKey();
    return number;
}

/// The number to open a key under that is not open: its own, unless a handle cannot carry it or another key has it.
LONG numberToOpen(RegKey& key) TRAIKLOFOX_REQUIRES(openKeysLock) {
    const LONG own = key.sequence();
    if (isHandleNumber(own) && findLocked(own) == nullptr) return own;
    key.setSequence(unusedNumber());
    return key.sequence();
}

}  // namespace

std::optional<LONG> openHandle(KeyRef key) {
    const LockGuard guard(openKeysLock);
    RegKey::Opening& open = key->open;
    if (key->isDead()) return std::nullopt;
    if (open.count == 0) {
        open.number = numberToOpen(*key);
        OpenKeyMap().insert(hashOf(open.number), key.get());  // without memory for that, the key stays closed
        open.self = std::move(key);
    }
    ++open.count;
    return open.number;
}

KeyRef closeHandle(HKEY handle) {
    const LockGuard guard(openKeysLock);
    RegKey* key = findLocked(handle);
    if (key == nullptr) return KeyRef();
    if (--key->open.count > 0) return KeyRef(key);
    OpenKeyMap().erase(hashOf(key->open.number), key);
    return std::move(key->open.self);
}

KeyRef keyOf(HKEY handle) {
    const LockGuard guard(openKeysLock);
    return KeyRef(findLocked(handle));
}

RegKey* lockKeyOf(HKEY handle) {
    const LockGuard guard(openKeysLock);
    RegKey* key = findLocked(handle);
    if (key == nullptr) return nullptr;
    key->lock.lock();
    if (!key->isDead()) return key;
    key->lock.unlock();
    return nullptr;
}

void lockOpenKeysForFork() TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
    openKeysLock.lock();
}
void unlockOpenKeysAfterFork() TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
    openKeysLock.unlock();
}

}  // namespace traiklofox::registry
