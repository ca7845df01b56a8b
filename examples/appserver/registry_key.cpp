// registry_key.cpp: opening keys the way that lasts, and reading values whose size is not known.

#include "registry_key.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace appserver {
namespace {

constexpr char kProductKey[] = "software\\example\\appserver";

std::string pathOf(std::string place) {
    std::replace(place.begin(), place.end(), '/', '\\');
    return std::string(kProductKey) + "\\" + place;
}

bool tryOpen(HKEY parent, const std::string& path, REGSAM access, HKEY& handle) {
    return RegOpenKeyEx(parent, path.c_str(), /*ulOptions=*/0, access, &handle) == ERROR_SUCCESS;
}

}  // namespace

RegistryKey RegistryKey::open(const std::string& place) {
    HKEY handle = 0;
    if (!tryOpen(HKEY_LOCAL_MACHINE, pathOf(place), KEY_READ, handle)) {
        throw RegistryError("there is no key " + place);
    }
    return RegistryKey(handle);
}

// A key that is created directly under the root would carry the upper-case root word, which does not survive
// the file. So the nearest key that exists is opened, and the rest is created below it.
RegistryKey RegistryKey::openOrCreate(const std::string& place) {
    const std::string path = pathOf(place);
    HKEY handle = 0;
    if (tryOpen(HKEY_LOCAL_MACHINE, path, KEY_ALL_ACCESS, handle)) return RegistryKey(handle);

    for (std::size_t end = path.rfind('\\'); end != std::string::npos; end = path.rfind('\\', end - 1)) {
        if (!tryOpen(HKEY_LOCAL_MACHINE, path.substr(0, end), KEY_ALL_ACCESS, handle)) continue;
        const RegistryKey nearest(handle);
        DWORD disposition = 0;
        const LONG result = RegCreateKeyEx(nearest.handle(), path.c_str() + end + 1, /*Reserved=*/0,
                                           /*lpClass=*/nullptr, REG_OPTION_NON_VOLATILE, KEY_ALL_ACCESS,
                                           /*lpSecurityAttributes=*/nullptr, &handle, &disposition);
        if (result != ERROR_SUCCESS) throw RegistryError("cannot create the key " + place);
        return RegistryKey(handle);
    }
    throw RegistryError("there is no key above " + place + " to create it in");
}

RegistryKey RegistryKey::openRoot() {
    HKEY handle = 0;
    if (!tryOpen(HKEY_LOCAL_MACHINE, "", KEY_READ, handle)) throw RegistryError("the registry is empty");
    return RegistryKey(handle);
}

RegistryKey RegistryKey::openSubkey(const std::string& name) const {
    HKEY subkey = 0;
    if (!tryOpen(handle_, name, KEY_READ, subkey)) throw RegistryError("there is no subkey " + name);
    return RegistryKey(subkey);
}

RegistryKey::RegistryKey(RegistryKey&& other) noexcept : handle_(std::exchange(other.handle_, 0)) {}

RegistryKey::~RegistryKey() {
    if (handle_ != 0) (void)RegCloseKey(handle_);  // fails only for a handle that is not open
}

std::string RegistryKey::read(const std::string& name) const {
    std::vector<char> data(128);
    DWORD type = REG_NONE;
    LONG result = ERROR_MORE_DATA;
    while (result == ERROR_MORE_DATA) {
        data.resize(data.size() * 2);
        DWORD size = static_cast<DWORD>(data.size());
        result = RegQueryValueEx(handle_, name.c_str(), /*lpReserved=*/nullptr, &type,
                                 reinterpret_cast<LPBYTE>(data.data()), &size);
    }
    if (result == ERROR_INVALID_DATA) throw RegistryError("there is no value " + name);
    if (result != ERROR_SUCCESS) throw RegistryError("cannot read the value " + name);
    if (type == REG_DWORD) return std::to_string(readNumber(name));
    if (type == REG_SZ) return data.data();

    std::string texts;
    for (const char* text = data.data(); *text != '\0'; text += std::string(text).size() + 1) {
        if (!texts.empty()) texts += ", ";
        texts += text;
    }
    return texts;
}

DWORD RegistryKey::readNumber(const std::string& name) const {
    DWORD number = 0;
    DWORD size = sizeof number;
    DWORD type = REG_NONE;
    const LONG result = RegQueryValueEx(handle_, name.c_str(), /*lpReserved=*/nullptr, &type,
                                        reinterpret_cast<LPBYTE>(&number), &size);
    if (result != ERROR_SUCCESS || type != REG_DWORD) throw RegistryError("there is no number " + name);
    return number;
}

void RegistryKey::writeNumber(const std::string& name, DWORD number) {
    const LONG result = RegSetValueEx(handle_, name.c_str(), /*Reserved=*/0, REG_DWORD,
                                      reinterpret_cast<const BYTE*>(&number), sizeof number);
    if (result != ERROR_SUCCESS) throw RegistryError("cannot set the number " + name);
}

void RegistryKey::writeText(const std::string& name, const std::string& text) {
    const LONG result =
        RegSetValueEx(handle_, name.c_str(), /*Reserved=*/0, REG_SZ,
                      reinterpret_cast<const BYTE*>(text.c_str()), static_cast<DWORD>(text.size() + 1));
    if (result != ERROR_SUCCESS) throw RegistryError("cannot set the text " + name);
}

void RegistryKey::flush() {
    if (RegFlushKey(handle_) != ERROR_SUCCESS) throw RegistryError("cannot write the registry");
}

}  // namespace appserver
