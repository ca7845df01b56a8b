#include "registry/name_rules.h"

#include <cstdio>

#include "registry/registry_line.h"

namespace traiklofox::registry {

namespace {

/// Null when there is nothing wrong.
const char* troubleWithKey(std::string_view name) {
    if (name.find('\n') != name.npos) return "a line feed in its name";
    if (name.find(':') != name.npos) return "a colon in its name";
    if (keyLineLength(name) > kLongestLine) return "its name is too long for a line of the file";
    return nullptr;
}

const char* troubleWithValue(const RegValue& value) {
    const CKZString& name = value.name;
    const CKZString& data = value.data;
    if (name.find('\n') != name.npos) return "a line feed in its name";
    if (name.find('\0') != name.npos || data.find('\0') != data.npos) return "a NUL in its name or data";
    if (name.find(':') != name.npos) return "a colon in its name";
    if (!name.empty() && name.front() == '#') return "its name begins with \"#\"";
    if (data.find('\n') != data.npos) return "a line feed in its data";
    if (name.find(kRootWord) != name.npos || data.find(kRootWord) != data.npos)
        return "\"hkey_local_machine\", which marks the lines of keys, in its name or data";
    if (value.lineLength() > kLongestLine) return "it is too long for a line of the file";
    return nullptr;
}

bool report(const char* function, const char* what, std::string_view name, const char* trouble) {
    if (trouble == nullptr) return true;
    constexpr int kShown = 200;
    const int length = name.size() < kShown ? static_cast<int>(name.size()) : kShown;
    std::fprintf(stderr, "%s: %s \"%.*s\" refused: %s\n", function, what, length, name.data(), trouble);
    return false;
}

}  // namespace

bool keyCanBeWritten(const char* function, std::string_view fullName) {
    return report(function, "key", fullName, troubleWithKey(fullName));
}

bool valueCanBeWritten(const char* function, const RegValue& value) {
    return !value.writable() || report(function, "value", value.name, troubleWithValue(value));
}

}  // namespace traiklofox::registry
