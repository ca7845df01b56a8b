#pragma once

// What one line of the registry file says. The reader and whoever checks a file go by the same rules.

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

}  // namespace traiklofox::registry
