#pragma once

// registry_walk.h: enumerates what is below a key.

#include "registry_key.h"

#include <cstddef>
#include <string>
#include <vector>

namespace appserver {

struct RegistryCount {
    std::size_t keys = 0;
    std::size_t values = 0;
};

/// Counts `key` and all keys below it, and the values of all of them.
RegistryCount countFrom(const RegistryKey& key);

/// The names of the key's values, in the order in which they were made.
std::vector<std::string> valueNames(const RegistryKey& key);
/// The names of the keys directly below, likewise.
std::vector<std::string> subkeyNames(const RegistryKey& key);

}  // namespace appserver
