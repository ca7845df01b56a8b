#pragma once

// One value of a key: what people read and type, and what the registry holds.

#include <traiklofox/registry.h>

#include <optional>
#include <string>
#include <vector>

namespace kzreg {

struct Value {
    std::string name;
    DWORD type = REG_NONE;
    std::string text;  // the data as the registry file has them

    /// The number of a REG_DWORD.
    DWORD number() const;
    /// The texts of a REG_MULTI_SZ, which the file separates by blanks.
    std::vector<std::string> texts() const;
    bool operator==(const Value&) const = default;
};

const char* typeWord(DWORD type);
/// The type of that name, in any letter case.
std::optional<DWORD> typeNamed(const std::string& word);

/// The text as a 32-bit number, which `base` says how to read; nothing when it is none from end to end.
std::optional<DWORD> numberIn(const std::string& text, int base);

/// The value on one line: name, type and data, the texts of a REG_MULTI_SZ separated by "\0".
std::string shown(const Value& value);
/// The value's name, or "(Default)" for the empty one.
std::string shownName(const std::string& name);

/// The value that was typed. Throws `Failure`: status 2 for what is no type or no number, 1 for data that
/// would come back from the registry file as other data.
Value valueTyped(const std::string& name, const std::optional<std::string>& type,
                 const std::optional<std::string>& data);

}  // namespace kzreg
