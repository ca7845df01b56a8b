// enumeration.cpp: what is in a key.

#include <traiklofox/registry.h>

#include <algorithm>
#include <cstring>

#include "registry/open_keys.h"
#include "registry/registry_call.h"
#include "registry/value_data.h"

using namespace traiklofox::registry;

namespace {

void copyName(std::string_view name, char* buffer) {
    std::memcpy(buffer, name.data(), name.size());
    buffer[name.size()] = '\0';
}

void store(LPDWORD where, size_t count) {
    if (where != nullptr) *where = static_cast<DWORD>(count);
}

}  // namespace

LONG RegEnumValue(HKEY hKey, DWORD dwIndex, char* lpValueName, LPDWORD lpcchValueName, LPDWORD,
                  LPDWORD lpType, LPBYTE lpData, LPDWORD lpcbData) {
    if (lpValueName == nullptr || lpcchValueName == nullptr) return kRegistryFailure;
    return registryCall([&] {
        return onOpenKey(hKey, [&](RegKey& key) TRAIKLOFOX_REQUIRES(key.lock) -> LONG {
            const RegValue* value = key.values.at(dwIndex);
            if (value == nullptr) return ERROR_NO_MORE_ITEMS;
            const bool fits = *lpcchValueName >= value->name.size();
            store(lpcchValueName, value->name.size());
            if (!fits) return ERROR_MORE_DATA;
            copyName(value->name, lpValueName);
            store(lpType, value->type);
            return copyOutEnumerated(*value, lpData, lpcbData);
        });
    });
}

LONG RegEnumKey(HKEY hKey, DWORD dwIndex, char* lpName, DWORD cchName) {
    if (lpName == nullptr) return kRegistryFailure;
    return registryCall([&] {
        return onOpenKey(hKey, [&](RegKey& key) TRAIKLOFOX_REQUIRES(key.lock) -> LONG {
            const RegKey* subkey = key.subkeys.at(dwIndex);
            if (subkey == nullptr) return ERROR_NO_MORE_ITEMS;
            const CKZString& name = subkey->component;
            if (cchName < name.size() + 1) return kRegistryFailure;
            copyName(name, lpName);
            return ERROR_SUCCESS;
        });
    });
}

LONG RegQueryInfoKey(HKEY hKey, char* lpClass, LPDWORD lpcClass, LPDWORD, LPDWORD lpcSubKeys,
                     LPDWORD lpcMaxSubKeyLen, LPDWORD lpcMaxClassLen, LPDWORD lpcValues,
                     LPDWORD lpcMaxValueNameLen, LPDWORD lpcMaxValueLen, LPDWORD lpcbSecurityDescriptor,
                     LPFILETIME lpftLastWriteTime) {
    return registryCall([&] {
        return onOpenKey(hKey, [&](RegKey& key) TRAIKLOFOX_REQUIRES(key.lock) -> LONG {
            size_t longestSubkey = 0;
            key.subkeys.inOrderOfCreation([&](const RegKey& subkey) {
                longestSubkey = std::max(longestSubkey, subkey.component.size());
            });
            size_t longestName = 0;
            size_t longestData = 0;
            key.values.inOrderOfCreation([&](const RegValue& value) {
                longestName = std::max(longestName, value.name.size());
                longestData = std::max(longestData, value.data.size());
            });
            if (lpClass != nullptr && lpcClass != nullptr && *lpcClass > 0) *lpClass = '\0';
            store(lpcClass, 0);
            store(lpcSubKeys, key.subkeys.size());
            store(lpcMaxSubKeyLen, longestSubkey);
            store(lpcMaxClassLen, 0);
            store(lpcValues, key.values.size());
            store(lpcMaxValueNameLen, longestName);
            store(lpcMaxValueLen, longestData);
            store(lpcbSecurityDescriptor, 0);
            if (lpftLastWriteTime != nullptr) *lpftLastWriteTime = {};
            return ERROR_SUCCESS;
        });
    });
}
