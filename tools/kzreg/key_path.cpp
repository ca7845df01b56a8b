#include "key_path.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <string_view>

#include "failure.h"

namespace kzreg {
namespace {

constexpr std::string_view kRoot = "hkey_local_machine";
constexpr std::array kRootNames = {"hkey_local_machine", "hklm"};
constexpr std::array kMissingRoots = {"hkcr", "hkcu", "hku", "hkcc"};

bool equalsAny(const std::string& text, const auto& names) {
    return std::any_of(names.begin(), names.end(),
                       [&](const char* name) { return strcasecmp(text.c_str(), name) == 0; });
}

bool isMissingRoot(const std::string& text) {
    return strncasecmp(text.c_str(), "hkey_", 5) == 0 || equalsAny(text, kMissingRoots);
}

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> components;
    for (size_t start = 0; start < text.size();) {
        const size_t end = std::min(text.find(separator, start), text.size());
        if (end > start) components.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return components;
}

std::string join(const std::vector<std::string>& components) {
    std::string text;
    for (const std::string& component : components) {
        if (!text.empty()) text += '\\';
        text += component;
    }
    return text;
}

}  // namespace

KeyPath KeyPath::typed(const std::string& text) {
    // An unset variable in a script must not mean the root.
    if (text.empty()) throw Failure(kUnusable, "the key is empty: write HKLM for the root");
    std::vector<std::string> components = split(text, text.find('\\') != text.npos ? '\\' : '/');
    if (components.empty()) return KeyPath({});
    if (equalsAny(components.front(), kRootNames))
        components.erase(components.begin());
    else if (isMissingRoot(components.front()))
        throw Failure(kUnusable, "there is no root " + components.front() +
                                     ": every key is below hkey_local_machine (HKLM)");
    return KeyPath(std::move(components));
}

KeyPath KeyPath::parent() const {
    return KeyPath({components_.begin(), components_.end() - 1});
}

std::string KeyPath::belowRoot() const {
    return join(components_);
}

std::string KeyPath::whole() const {
    std::vector<std::string> all = components_;
    all.emplace(all.begin(), kRoot);
    return join(all);
}

}  // namespace kzreg
