// key_api.cpp: opening, creating, closing, flushing and deleting keys.

#include <traiklofox/registry.h>

#include <cstring>

#include "registry/change_notification.h"
#include "registry/find_key.h"
#include "registry/key_numbers.h"
#include "registry/name_rules.h"
#include "registry/open_keys.h"
#include "registry/registry_call.h"
#include "registry/write_request.h"

namespace traiklofox::registry {

namespace {

using foundation::LockGuard;

HKEY handleOf(LONG number, REGSAM access) {
    return (access & kWriteAccess) != 0 ? number | kWriteBit : number;
}

/// Requests a write when the key has changes, after waking those who watch it. Under no lock.
bool writeChanges(RegKey& key) {
    if (!key.isDirty()) return true;
    wakeWatchers(key);
    return requestWrite();
}

bool isBackslashesAlone(const char* path) {
    return path[std::strspn(path, "\\")] == '\0';
}

/// The key that a path below a handle leads to; null when there is none. The walk starts where the handle is: its
/// key's place is where its full name leads.
KeyRef lookUp(HKEY hKey, const char* subKey) TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
    if (hKey == HKEY_LOCAL_MACHINE)
        return FindKey(RegKey::root(), RegFormatKey(subKey, hKey), Walk::LookUp).key;
    if (isBackslashesAlone(subKey)) return keyOf(hKey);
    RegKey* start = lockKeyOf(hKey);
    return start != nullptr ? lookUpFromLocked(*start, subKey) : KeyRef();
}

LONG openKey(HKEY hKey, const char* subKey, REGSAM access, PHKEY result) {
    (void)bringTreeUpToDate();
    KeyRef key = lookUp(hKey, subKey != nullptr ? subKey : "");
    if (!key) return ERROR_INVALID_DATA;
    const auto number = openHandle(std::move(key));
    if (!number) return ERROR_INVALID_DATA;
    *result = handleOf(*number, access);
    return ERROR_SUCCESS;
}

/// A new key, and its parent, have changed: the parent has one subkey more.
void noteCreation(RegKey& key) {
    key.noteChange();
    if (RegKey* parent = key.parent()) parent->noteChange();
}

LONG createKey(HKEY hKey, const char* subKey, REGSAM access, PHKEY result, LPDWORD disposition) {
    const CKZString path = normalizedPath(RegFormatKey(subKey, hKey));
    if (path.empty() || !keyCanBeWritten("RegCreateKeyEx", path)) return kRegistryFailure;
    (void)bringTreeUpToDate();
    for (;;) {
        const FoundKey found = FindKey(RegKey::root(), path, Walk::Create);
        if (!found.key) return kRegistryFailure;
        const auto number = openHandle(found.key);
        if (!number) continue;  // somebody removed it between the walk and the opening: make it again
        if (disposition != nullptr) {
            if (found.created) noteCreation(*found.key);
            *disposition = found.created ? REG_CREATED_NEW_KEY : REG_OPENED_EXISTING_KEY;
        }
        *result = handleOf(*number, access);
        return ERROR_SUCCESS;
    }
}

LONG deleteKey(HKEY hKey, const char* subKey) {
    const CKZString path = normalizedPath(RegFormatKey(subKey, hKey));
    const auto [parentPath, name] = splitLast(path);
    if (parentPath.empty() || name.empty()) return kRegistryFailure;
    (void)bringTreeUpToDate();
    const FoundKey parent = FindKey(RegKey::root(), parentPath, Walk::LookUp);
    if (!parent.key) return kRegistryFailure;
    KeyRef removed;
    {
        const LockGuard guard(parent.key->lock);
        if (parent.key->isDead()) return kRegistryFailure;
        removed = parent.key->deleteSubkey(name);
    }
    if (!removed) return kRegistryFailure;
    RegKey::dismantle(std::move(removed));
    parent.key->noteChange();
    (void)writeChanges(*parent.key);  // reported; the change stays marked
    return ERROR_SUCCESS;
}

/// A path of backslashes alone leads to the key that it starts from.
bool namesSubkey(const char* path) {
    return path != nullptr && !isBackslashesAlone(path);
}

}  // namespace

}  // namespace traiklofox::registry

using namespace traiklofox::registry;

CKZString RegFormatKey(const char* lpSubKey, HKEY hKey) {
    CKZString path;
    if (hKey == HKEY_LOCAL_MACHINE) {
        path = "HKEY_LOCAL_MACHINE";
    } else {
        (void)onOpenKey(hKey, [&](RegKey& key) TRAIKLOFOX_REQUIRES(key.lock) {
            path = key.pathForSubkeys();
            return ERROR_SUCCESS;
        });
        if (path.empty()) return path;
    }
    path += '\\';
    if (lpSubKey != nullptr) path += lpSubKey;
    if (path.back() == '\\') path.pop_back();
    return path;
}

CKZString RegHKEYtoString(HKEY hKey) {
    CKZString name;
    (void)onOpenKey(hKey, [&](RegKey& key) TRAIKLOFOX_REQUIRES(key.lock) {
        name = key.fullName();
        return ERROR_SUCCESS;
    });
    return name;
}

LONG RegOpenKeyEx(HKEY hKey, const char* lpSubKey, DWORD, REGSAM samDesired, PHKEY phkResult) {
    if (phkResult == nullptr) return ERROR_INVALID_DATA;
    return registryCall([&] { return openKey(hKey, lpSubKey, samDesired, phkResult); });
}

LONG RegCreateKeyEx(HKEY hKey, const char* lpSubKey, DWORD, char*, DWORD, REGSAM samDesired,
                    _SECURITY_ATTRIBUTES*, PHKEY phkResult, LPDWORD lpdwDisposition) {
    if (lpSubKey == nullptr || phkResult == nullptr) return kRegistryFailure;
    return registryCall([&] { return createKey(hKey, lpSubKey, samDesired, phkResult, lpdwDisposition); });
}

LONG RegDeleteKey(HKEY hKey, const char* lpSubKey) {
    if (!namesSubkey(lpSubKey)) return kRegistryFailure;
    return registryCall([&] { return deleteKey(hKey, lpSubKey); });
}

LONG RegCloseKey(HKEY hKey) {
    return registryCall([&]() -> LONG {
        const KeyRef key = closeHandle(hKey);
        if (!key) return kRegistryFailure;
        if ((hKey & kWriteBit) != 0) (void)writeChanges(*key);  // reported; the changes stay marked
        return ERROR_SUCCESS;
    });
}

LONG RegFlushKey(HKEY hKey) {
    return registryCall([&]() -> LONG {
        const KeyRef key = keyOf(hKey);
        if (!key || key->isDead()) return kRegistryFailure;
        return writeChanges(*key) ? ERROR_SUCCESS : kRegistryFailure;
    });
}
