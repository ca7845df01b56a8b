// registry_walk.cpp: `RegEnumKey` and `RegEnumValue`, with buffers of the sizes that `RegQueryInfoKey` gives.
//
// Another process may add a longer name between the two calls, so a buffer that proves too small makes the
// enumeration start again.

#include "registry_walk.h"

#include <algorithm>
#include <optional>

namespace appserver {
namespace {

struct Longest {
    DWORD subkeyName = 0;
    DWORD valueName = 0;
    DWORD data = 0;
};

Longest longestIn(const RegistryKey& key) {
    Longest longest;
    const LONG result =
        RegQueryInfoKey(key.handle(), /*lpClass=*/nullptr, /*lpcClass=*/nullptr, /*lpReserved=*/nullptr,
                        /*lpcSubKeys=*/nullptr, &longest.subkeyName, /*lpcMaxClassLen=*/nullptr,
                        /*lpcValues=*/nullptr, &longest.valueName, &longest.data,
                        /*lpcbSecurityDescriptor=*/nullptr, /*lpftLastWriteTime=*/nullptr);
    if (result != ERROR_SUCCESS) throw RegistryError("cannot ask for the size of a key");
    return longest;
}

/// Nothing when the key has grown a longer subkey name meanwhile.
std::optional<std::vector<std::string>> tryListSubkeys(const RegistryKey& key) {
    std::vector<char> name(longestIn(key).subkeyName + 1);
    std::vector<std::string> names;
    for (DWORD index = 0;; ++index) {
        const LONG result = RegEnumKey(key.handle(), index, name.data(), static_cast<DWORD>(name.size()));
        if (result == ERROR_NO_MORE_ITEMS) return names;
        if (result != ERROR_SUCCESS) return std::nullopt;
        names.emplace_back(name.data());
    }
}

std::optional<std::vector<std::string>> tryListValues(const RegistryKey& key) {
    const Longest longest = longestIn(key);
    std::vector<char> name(longest.valueName + 1);
    std::vector<BYTE> data(std::max<std::size_t>(longest.data + 1, sizeof(DWORD)));
    std::vector<std::string> names;
    for (DWORD index = 0;; ++index) {
        DWORD nameLength = static_cast<DWORD>(name.size()) - 1;  // the NUL is written behind what this counts
        DWORD dataSize = static_cast<DWORD>(data.size());
        DWORD type = REG_NONE;
        const LONG result = RegEnumValue(key.handle(), index, name.data(), &nameLength,
                                         /*lpReserved=*/nullptr, &type, data.data(), &dataSize);
        if (result == ERROR_NO_MORE_ITEMS) return names;
        if (result != ERROR_SUCCESS) return std::nullopt;
        names.emplace_back(name.data(), nameLength);
    }
}

constexpr int kAttempts = 10;

template <class List>
std::vector<std::string> listSettled(const RegistryKey& key, List tryList) {
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        if (std::optional<std::vector<std::string>> names = tryList(key)) return *names;
    }
    throw RegistryError("cannot enumerate a key");
}

}  // namespace

std::vector<std::string> subkeyNames(const RegistryKey& key) {
    return listSettled(key, tryListSubkeys);
}

std::vector<std::string> valueNames(const RegistryKey& key) {
    return listSettled(key, tryListValues);
}

RegistryCount countFrom(const RegistryKey& key) {
    RegistryCount count{/*keys=*/1, valueNames(key).size()};
    for (const std::string& name : subkeyNames(key)) {
        const RegistryCount below = countFrom(key.openSubkey(name));
        count.keys += below.keys;
        count.values += below.values;
    }
    return count;
}

}  // namespace appserver
