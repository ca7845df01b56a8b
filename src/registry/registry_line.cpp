#include "registry/registry_line.h"

#include <strings.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <string>

#include "registry/file_number.h"
#include "registry/key_numbers.h"

namespace traiklofox::registry {

namespace {

using Kind = RegistryLine::Kind;

constexpr std::string_view kUpperRootWord = "HKEY_LOCAL_MACHINE";
constexpr size_t kLongestNumber = 10;

/// What must stand in front of a key's name, lest its line be a comment.
std::string_view markInFront(std::string_view name) {
    return name.starts_with('#') ? "\\" : "";
}

/// What must stand behind a key's number to make a key's line of it: the reader looks for the root word in the whole
/// line, so that a name may have come without it.
std::string_view markBehind(std::string_view name) {
    const bool isPlain = name.find(kRootWord) != name.npos || name.starts_with(kUpperRootWord);
    return isPlain ? std::string_view() : kRootWord;
}

/// The number behind a key's name.
LONG numberOf(std::string_view text, bool& whole) {
    const std::string number(text);
    char* end = nullptr;
    errno = 0;
    const std::uint32_t value = readNumber(number.c_str(), &end);
    whole = end != number.c_str() && *end == '\0' && errno == 0;
    return static_cast<LONG>(value);
}

const char* defectOfKey(std::string_view name, LONG number, bool numberIsWhole) {
    if (!namesKey(name)) return "a key's line that names no key";
    if (!name.starts_with(kRootWord))
        return "taken for a key's line, because it has \"hkey_local_machine\" in it";
    if (name.size() > kRootWord.size() && name[kRootWord.size()] != '\\')
        return "the key's name does not go on with a backslash";
    if (name.ends_with('\\') || name.find("\\\\") != name.npos)
        return "the key's name has a backslash too many, which is passed over";
    if (!numberIsWhole) return "what follows the key's name is no number";
    if (!isHandleNumber(number))
        return "the key's number is outside 1 to 1073741822; it will be given another";
    return nullptr;
}

RegistryLine parseKey(std::string_view line, bool wantsDefects) {
    RegistryLine key;
    const size_t colon = line.find(':');
    if (colon == line.npos) {
        key.kind = Kind::Malformed;
        key.defect = "a key's line without a colon";
        return key;
    }
    key.kind = Kind::Key;
    key.keyName = line.substr(0, colon);
    bool whole = true;
    key.number = numberOf(line.substr(colon + 1), whole);
    if (wantsDefects) key.defect = defectOfKey(key.keyName, key.number, whole);
    return key;
}

/// Why a line is no value's.
const char* defectOfNoValue(std::string_view line) {
    const size_t colon = line.find(':');
    if (line.size() >= kRootWord.size() && strncasecmp(line.data(), kRootWord.data(), kRootWord.size()) == 0)
        return "a key's name must begin with \"hkey_local_machine\" in lower case";
    if (colon == line.npos) return "neither a key's nor a value's line: no colon";
    if (line.find(';', colon) == line.npos) return "a value's line without a semicolon after its data";
    if (line.back() == '\r') return "a value's line that ends in a carriage return";
    return "a value's line whose type is not REG_SZ, REG_DWORD or REG_MULTI_SZ";
}

const char* defectOfValue(std::string_view line) {
    const size_t semicolon = line.find(';', line.find(':'));
    if (line.find(';', semicolon + 1) != line.npos) return "the value's data are cut at the first semicolon";
    return nullptr;
}

}  // namespace

void appendKeyLine(std::string& text, std::string_view name, LONG number) {
    std::array<char, 16> room{};
    const auto end = std::to_chars(room.data(), room.data() + room.size(), number).ptr;
    const std::string_view digits(room.data(), static_cast<size_t>(end - room.data()));
    const std::string_view front = markInFront(name);
    const std::string_view behind = markBehind(name);
    text.append(front).append(name).push_back(':');
    const size_t needed = front.size() + name.size() + 1 + behind.size();
    if (needed + digits.size() + (behind.empty() ? 0 : 1) <= kLongestLine)
        text.append(digits).append(behind.empty() ? "" : " ");
    text.append(behind).push_back('\n');
}

size_t keyLineLength(std::string_view name) {
    const std::string_view behind = markBehind(name);
    return markInFront(name).size() + name.size() + 1 + kLongestNumber +
           (behind.empty() ? 0 : behind.size() + 1);
}

RegistryLine parseLine(std::string_view line, bool wantsDefects) {
    const size_t nul = line.find('\0');
    const bool cut = nul != line.npos;
    line = line.substr(0, nul);
    RegistryLine parsed;
    if (line.empty() || line.front() == '#') {
        parsed.kind = Kind::Nothing;
    } else if (line.find(kRootWord) != line.npos) {
        parsed = parseKey(line, wantsDefects);
    } else if (const auto value = parseValueLine(line)) {
        parsed.kind = Kind::Value;
        parsed.value = *value;
        if (wantsDefects) parsed.defect = defectOfValue(line);
    } else {
        parsed.kind = Kind::Malformed;
        if (wantsDefects) parsed.defect = defectOfNoValue(line);
    }
    if (cut && parsed.defect == nullptr) parsed.defect = "cut at a NUL character";
    return parsed;
}

}  // namespace traiklofox::registry
