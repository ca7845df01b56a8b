// value_api.cpp: reading, setting and deleting values.

#include <traiklofox/registry.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <span>
#include <vector>

#include "registry/cache_lock.h"
#include "registry/name_rules.h"
#include "registry/open_keys.h"
#include "registry/registry_call.h"
#include "registry/value_data.h"

namespace traiklofox::registry {

namespace {

bool isWritable(HKEY handle) {
    return (handle & kWriteBit) != 0;
}

/// Sets values that have been checked, under the key's lock. One that equals its stored value changes nothing only when
/// the tree is current: the file may have another by now.
LONG setValues(RegKey& key, std::span<const RegValue> values) TRAIKLOFOX_REQUIRES(key.lock) {
    const bool current = treeIsCurrent();
    for (const RegValue& value : values) {
        bool changed = false;
        key.SetValue(value.text(), changed, /*fromFile=*/false);
        if (changed)
            key.noteChange();
        else if (!current)
            key.markForWriting(value.name);
    }
    return ERROR_SUCCESS;
}

LONG setValues(const char* function, HKEY handle, std::span<const RegValue> values) {
    for (const RegValue& value : values)
        if (!valueCanBeWritten(function, value)) return kRegistryFailure;
    return onOpenKey(handle,
                     [&](RegKey& key) TRAIKLOFOX_REQUIRES(key.lock) { return setValues(key, values); });
}

}  // namespace

}  // namespace traiklofox::registry

using namespace traiklofox::registry;

LONG RegQueryValueEx(HKEY hKey, const char* lpValueName, LPDWORD, LPDWORD lpType, LPBYTE lpData,
                     LPDWORD lpcbData) {
    if (lpData == nullptr && lpcbData == nullptr) return ERROR_SUCCESS;
    return registryCall([&] {
        return onOpenKey(hKey, [&](RegKey& key) TRAIKLOFOX_REQUIRES(key.lock) -> LONG {
            const RegValue* value = key.values.find(lpValueName != nullptr ? lpValueName : "");
            if (value == nullptr) return ERROR_INVALID_DATA;
            if (lpType != nullptr) *lpType = value->type;
            return copyOutQueried(*value, lpData, lpcbData);
        });
    });
}

LONG RegSetValueEx(HKEY hKey, const char* lpValueName, DWORD, DWORD dwType, const BYTE* lpData,
                   DWORD cbData) {
    return registryCall([&]() -> LONG {
        if (!isWritable(hKey)) return kRegistryFailure;
        RegValue value(dwType, lpValueName, "");
        if (!formDataText(dwType, lpData, cbData, value.data)) return kRegistryFailure;
        return setValues("RegSetValueEx", hKey, {&value, 1});
    });
}

LONG RegSetValueNode(CKZString name, DWORD type, BYTE* data, RegValueList* entry) {
    if (entry == nullptr) return kRegistryFailure;
    return registryCall([&]() -> LONG {
        CKZString text;
        if (!formDataText(type, data, multiStringSize(type, data), text)) return kRegistryFailure;
        *entry = {std::move(name), type, std::move(text)};
        return ERROR_SUCCESS;
    });
}

LONG RegBatchSetValueEx(HKEY hKey, std::vector<RegValueList> values) {
    return registryCall([&]() -> LONG {
        if (!isWritable(hKey)) return kRegistryFailure;
        std::vector<RegValue> checked;
        checked.reserve(values.size());
        for (RegValueList& entry : values)
            checked.emplace_back(entry.type, std::move(entry.name), std::move(entry.data));
        return setValues("RegBatchSetValueEx", hKey, checked);
    });
}

LONG RegDeleteValue(HKEY hKey, const char* lpValueName) {
    if (lpValueName == nullptr || !isWritable(hKey)) return kRegistryFailure;
    return registryCall([&] {
        return onOpenKey(hKey, [&](RegKey& key) TRAIKLOFOX_REQUIRES(key.lock) -> LONG {
            if (!key.DeleteValue(lpValueName)) return kRegistryFailure;
            key.noteChange();
            return ERROR_SUCCESS;
        });
    });
}
