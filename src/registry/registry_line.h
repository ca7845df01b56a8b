#pragma once

// What one line of the registry file says. The reader and whoever checks a file go by the same rules.

#include <string>
#include <string_view>

#include "registry/reg_value.h"

namespace traiklofox::registry {

struct RegistryLine {
    enum class Kind {
        Nothing,    // empty, or a comment
        Key,        // `keyName` and `number`
        Value,      // `value`
        Malformed,  // ignored by the reader
    };
    Kind kind = Kind::Nothing;
    std::string_view keyName;
    LONG number = 0;
    ValueText value;
    const char* defect = nullptr;  // what is ignored, cut or taken otherwise than it looks; null for nothing
};

/// Takes one line, without its line feed, apart: what is returned refers to it. `wantsDefects` asks for those of
/// lines that are used all the same, which the reader does not care for.
RegistryLine parseLine(std::string_view line, bool wantsDefects = false);

/// False for a name without a component, whose line is a key's of no key: the values below it are nobody's.
inline bool namesKey(std::string_view keyName) {
    return keyName.find_first_not_of('\\') != keyName.npos;
}

/// Appends a key's line, with its line feed: one that `parseLine` takes for that key's, whatever a hand has named it.
/// Those below the upper-case root, which keys made below handle 0 have, stay no keys' lines, deliberately. A number
/// that finds no room on the line is left out; the key then gets another when it is opened.
void appendKeyLine(std::string& text, std::string_view name, LONG number);

/// The length of that line without the line feed, with the longest number that a handle can carry.
size_t keyLineLength(std::string_view name);

}  // namespace traiklofox::registry
