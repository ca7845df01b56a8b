#include "key.h"

#include <strings.h>

#include <algorithm>
#include <utility>

#include "failure.h"

namespace kzreg {
namespace {

HKEY openAt(HKEY parent, const std::string& path, REGSAM access) {
    HKEY handle = 0;
    return RegOpenKeyEx(parent, path.c_str(), /*ulOptions=*/0, access, &handle) == ERROR_SUCCESS ? handle : 0;
}

HKEY makeAt(HKEY parent, const std::string& name, REGSAM access) {
    HKEY handle = 0;
    DWORD disposition = 0;  // asking for it is what marks a new key as one to be written
    if (RegCreateKeyEx(parent, name.c_str(), /*Reserved=*/0, /*lpClass=*/nullptr, REG_OPTION_NON_VOLATILE,
                       access,
                       /*lpSecurityAttributes=*/nullptr, &handle, &disposition) != ERROR_SUCCESS)
        throw Failure(kFailed, "the key is not made: choose another name");
    return handle;
}

/// What `RegQueryInfoKey` tells of a key.
struct Sizes {
    DWORD subkeys = 0;
    DWORD longestSubkey = 0;
    DWORD values = 0;
    DWORD longestName = 0;
    DWORD longestData = 0;
};

Sizes sizesOf(HKEY key) {
    Sizes sizes;
    if (RegQueryInfoKey(key, /*lpClass=*/nullptr, /*lpcClass=*/nullptr, /*lpReserved=*/nullptr,
                        &sizes.subkeys, &sizes.longestSubkey, /*lpcMaxClassLen=*/nullptr, &sizes.values,
                        &sizes.longestName, &sizes.longestData, /*lpcbSecurityDescriptor=*/nullptr,
                        /*lpftLastWriteTime=*/nullptr) != ERROR_SUCCESS)
        throw Failure(kFailed, "the key has been deleted meanwhile");
    return sizes;
}

Value readValue(HKEY key, const std::string& name, DWORD longestData) {
    std::vector<char> data(std::max<size_t>(longestData + 1, sizeof(DWORD)));
    auto size = static_cast<DWORD>(data.size());
    Value value{name, REG_NONE, ""};
    (void)RegQueryValueEx(key, name.c_str(), /*lpReserved=*/nullptr, &value.type,
                          reinterpret_cast<LPBYTE>(data.data()), &size);  // the caller knows that it is there
    if (value.type == REG_DWORD) {
        DWORD number = 0;
        std::copy_n(data.data(), sizeof number, reinterpret_cast<char*>(&number));
        CKZString text;
        text.Format("%#lx", static_cast<unsigned long>(number));
        value.text = text;
    } else if (value.type == REG_MULTI_SZ) {
        value.text.assign(data.data(), size - 1);
        std::replace(value.text.begin(), value.text.end(), '\0', ' ');
    } else {
        value.text = data.data();
    }
    return value;
}

bool comesBefore(const std::string& left, const std::string& right) {
    return strcasecmp(left.c_str(), right.c_str()) < 0;
}

}  // namespace

Key Key::open(const KeyPath& path) {
    std::optional<Key> found = find(path.belowRoot());
    if (!found) failToFind(path);
    return std::move(*found);
}

std::optional<Key> Key::find(const std::string& belowRoot) {
    const HKEY handle = openAt(HKEY_LOCAL_MACHINE, belowRoot, KEY_READ);
    return handle != 0 ? std::optional(Key(handle)) : std::nullopt;
}

std::optional<Key> Key::openBelow(const Key& parent, const std::string& name) {
    const HKEY handle = openAt(parent.handle_, name, KEY_READ);
    return handle != 0 ? std::optional(Key(handle)) : std::nullopt;
}

Key Key::makeBelow(const Key& parent, const std::string& name) {
    return Key(makeAt(parent.handle_, name, KEY_READ));
}

Key::Key(Key&& other) noexcept : handle_(std::exchange(other.handle_, 0)) {}

Key::~Key() {
    if (handle_ != 0) (void)RegCloseKey(handle_);  // fails only for a handle that is not open
}

std::vector<Value> Key::values() const {
    const Sizes sizes = sizesOf(handle_);
    std::vector<char> name(sizes.longestName + 1);
    std::vector<Value> values;
    for (DWORD index = 0; index < sizes.values; ++index) {
        DWORD length = sizes.longestName;  // the NUL is not counted
        if (RegEnumValue(handle_, index, name.data(), &length, /*lpReserved=*/nullptr, /*lpType=*/nullptr,
                         /*lpData=*/nullptr, /*lpcbData=*/nullptr) != ERROR_SUCCESS)
            break;
        values.push_back(readValue(handle_, {name.data(), length}, sizes.longestData));
    }
    std::sort(values.begin(), values.end(),
              [](const Value& left, const Value& right) { return comesBefore(left.name, right.name); });
    return values;
}

std::vector<std::string> Key::subkeys() const {
    const Sizes sizes = sizesOf(handle_);
    std::vector<char> name(sizes.longestSubkey + 1);
    std::vector<std::string> names;
    for (DWORD index = 0; index < sizes.subkeys; ++index) {
        if (RegEnumKey(handle_, index, name.data(), static_cast<DWORD>(name.size())) != ERROR_SUCCESS) break;
        names.emplace_back(name.data());
    }
    std::sort(names.begin(), names.end(), comesBefore);
    return names;
}

std::optional<Value> Key::value(const std::string& name) const {
    const Sizes sizes = sizesOf(handle_);
    DWORD type = REG_NONE;
    DWORD size = 0;
    if (RegQueryValueEx(handle_, name.c_str(), /*lpReserved=*/nullptr, &type, /*lpData=*/nullptr, &size) ==
        ERROR_INVALID_DATA)
        return std::nullopt;
    return readValue(handle_, name, sizes.longestData);
}

KeyToChange KeyToChange::open(const KeyPath& path) {
    const HKEY handle = openAt(HKEY_LOCAL_MACHINE, path.belowRoot(), KEY_ALL_ACCESS);
    if (handle == 0) failToFind(path);
    return KeyToChange(handle);
}

KeyToChange KeyToChange::make(const KeyPath& path) {
    if (path.isRoot()) return open(path);
    // From the nearest key down, because a key that is made directly under the root does not last.
    std::vector<Key> way;
    way.push_back(Key::open(KeyPath::typed("\\")));
    const KeyPath above = path.parent();
    for (const std::string& name : above.components()) {
        std::optional<Key> present = Key::openBelow(way.back(), name);
        Key next = present ? std::move(*present) : Key::makeBelow(way.back(), name);
        way.push_back(std::move(next));
    }
    return KeyToChange(makeAt(way.back().handle(), path.name(), KEY_ALL_ACCESS));
}

void KeyToChange::save() {
    if (RegFlushKey(handle_) != ERROR_SUCCESS) failToWrite();
    (void)RegCloseKey(handle_);  // nothing is left to write
}

void failToWrite() {
    throw Failure(kFailed, "the change is not on the disk: mend what the message above says, and try again");
}

void failToFind(const KeyPath& path) {
    if (path.isRoot())
        throw Failure(kUnusable, "the registry holds no key: restore " + GetRegistryPath() +
                                     " from its .bak or .template");
    KeyPath nearest = path.parent();
    HKEY handle = 0;
    while (!nearest.isRoot() && handle == 0) {
        handle = openAt(HKEY_LOCAL_MACHINE, nearest.belowRoot(), KEY_READ);
        if (handle == 0) nearest = nearest.parent();
    }
    if (handle != 0) (void)RegCloseKey(handle);
    throw Failure(kFailed, "there is no key " + path.whole() + "; kzreg query '" + nearest.whole() +
                               "' lists what is there");
}

}  // namespace kzreg
