// The path of a key: taken apart, made, found again, and through a line of the registry file.
//
// The input is two paths, a line each.

#include <strings.h>

#include <algorithm>
#include <cctype>
#include <vector>

#include "failure.h"
#include "key_path.h"
#include "registry/find_key.h"
#include "registry/name_rules.h"
#include "registry/registry_line.h"
#include "require.h"

namespace {

using namespace traiklofox::fuzz;
using namespace traiklofox::registry;
using traiklofox::foundation::LockGuard;

using Components = std::vector<std::string>;

Components componentsOf(std::string_view path) {
    Components components(1);
    for (const char character : path) {
        if (character != '\\')
            components.back() += character;
        else if (!components.back().empty())
            components.emplace_back();
    }
    if (components.back().empty()) components.pop_back();
    return components;
}

void checkNormalizing(const std::string& path, const std::string& normal) {
    require(componentsOf(normal) == componentsOf(path), "the same components", normal);
    require(normalizedPath(normal) == normal, "normal stays normal", normal);
    const auto [front, last] = splitLast(normal);
    require(depthOf(path) == componentsOf(path).size(), "as many as there are", normal);
    require(normal.empty() ? last.empty() : last == componentsOf(path).back(), "split at the last component",
            normal);
    require(front.empty() ? last == normal : std::string(front) + "\\" + std::string(last) == normal,
            "split without a loss", normal);
}

void checkOrder(const std::string& left, const std::string& right) {
    const CKZStringPc a(left);
    const CKZStringPc b(right);
    const int order = strcasecmp(left.c_str(), right.c_str());
    require((a < b) == (order < 0) && (b < a) == (order > 0) && (a == b) == (order == 0),
            "ordered as strcasecmp does");
    require(order != 0 || a.hash() == b.hash(), "equal ones have equal hashes");
}

std::string otherCase(std::string text) {
    for (char& c : text) {
        const auto byte = static_cast<unsigned char>(c);
        c = static_cast<char>(std::isupper(byte) != 0 ? std::tolower(byte) : std::toupper(byte));
    }
    return text;
}

/// The key's line as the file has it.
std::string lineOf(RegKey& key) {
    std::string text;
    WriteBatch batch;
    {
        const LockGuard guard(key.lock);
        key.print(text, batch);
    }
    batch.commit();
    require(text.find('\n') == text.size() - 1 && text.size() <= kLongestLine + 1, "one line", text);
    text.pop_back();
    return text;
}

void forget(const RegKey& made) {
    const CKZString place = made.place();
    RegKey& root = RegKey::root();
    const KeyRef top = FindKey(root, std::string_view(place).substr(0, place.find('\\')), Walk::LookUp).key;
    KeyRef removed;
    {
        const LockGuard guard(root.lock);
        removed = root.takeSubkey(*top);
    }
    RegKey::dismantle(std::move(removed));
}

/// Makes the key, as a creation below an existing one does.
void checkKey(const std::string& path, const std::string& normal) {
    if (normal.find(kRootWord) == normal.npos || !keyCanBeWritten("fuzz", normal)) return;
    const FoundKey made = FindKey(RegKey::root(), normal, Walk::Create);
    require(made.created && made.key->place() == normal, "made where it is to be", normal);
    for (const std::string& way : {path, "\\" + otherCase(normal) + "\\\\"}) {
        const FoundKey found = FindKey(RegKey::root(), way, Walk::LookUp);
        require(found.key.get() == made.key.get() && !found.created, "found again", way);
    }
    const std::string line = lineOf(*made.key);
    const RegistryLine parsed = parseLine(line);
    require(parsed.kind == RegistryLine::Kind::Key, "its line is a key's", line);
    require(normalizedPath(parsed.keyName) == normal && parsed.number == made.key->sequence(),
            "which names it and its number", line);
    const FoundKey read = FindKey(RegKey::root(), parsed.keyName, Walk::FromFile, parsed.number);
    require(read.key.get() == made.key.get() && !read.created, "read back, it is the same key", line);
    forget(*made.key);
    require(!FindKey(RegKey::root(), normal, Walk::LookUp).key, "taken out, it is not found", normal);
}

/// A key as an operator types it.
void checkTyped(const std::string& typed) {
    std::string whole;
    try {
        const auto path = kzreg::KeyPath::typed(typed);
        whole = path.whole();
        require(path.belowRoot().empty() == path.isRoot(), "the root has nothing below itself");
        require(whole == (path.isRoot() ? std::string(kRootWord)
                                        : std::string(kRootWord) + "\\" + path.belowRoot()),
                "the whole is the root and what is below", whole);
        require(normalizedPath(whole) == whole, "a normal path", whole);
    } catch (const kzreg::Failure&) {
        return;  // empty, or a root that there is none of
    }
    require(kzreg::KeyPath::typed(whole).whole() == whole, "the whole path, typed, is itself", whole);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, size_t size) {
    std::string_view rest = textOf(bytes, size);
    rest = rest.substr(0, rest.find('\0'));  // callers hand over C texts
    const std::string first(takeLine(rest));
    const std::string second(rest);
    checkOrder(first, second);
    for (const std::string& path : {first, second}) {
        const std::string normal = normalizedPath(path);
        checkNormalizing(path, normal);
        checkKey(path, normal);
        checkTyped(path);
    }
    return 0;
}
