#pragma once

// The open-key map: which key a handle's number stands for, and how often the key is open. Its lock is taken
// before a key's.

#include <traiklofox/registry.h>

#include <optional>

#include "registry/reg_key.h"

namespace traiklofox::registry {

constexpr HKEY kWriteBit = 0x40000000;
/// Any of these in an access mask makes a handle one for writing.
constexpr REGSAM kWriteAccess = 0x60000;

/// Opens the key once more and returns its number; none when it is dead. A key whose number another open key
/// has, or which a handle cannot carry, gets a new one: two keys never answer to one handle.
std::optional<LONG> openHandle(KeyRef key);

/// Closes one opening. The key comes back; null when the number is not open.
KeyRef closeHandle(HKEY handle);

/// The key behind a handle; null when there is none.
KeyRef keyOf(HKEY handle);

/// The key behind a handle, locked, which the caller unlocks; null (and nothing locked) when the handle is
/// unknown or the key is dead. Without a reference: a key lives while it is locked and not dead, because whoever lets
/// it go for its parent locks it first, to mark it dead.
RegKey* lockKeyOf(HKEY handle) TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS;

/// Runs `body` on the key behind a handle, with the key's lock held. Returns its result, or -1 for an unknown
/// handle or a dead key.
template <class Body>
LONG onOpenKey(HKEY handle, Body body) TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
    struct Unlock {
        RegKey* key;
        ~Unlock() TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
            if (key != nullptr) key->lock.unlock();
        }
    };
    const Unlock locked{lockKeyOf(handle)};
    if (locked.key == nullptr) return -1;
    return body(*locked.key);
}

void lockOpenKeysForFork();
void unlockOpenKeysAfterFork();

}  // namespace traiklofox::registry
