#pragma once

// One value of a registry key, and its line in the registry file.

#include <traiklofox/registry.h>
#include <traiklofox/strings.h>

#include <optional>
#include <string>
#include <string_view>

namespace traiklofox::registry {

/// The longest line of the registry file, without its line feed.
constexpr size_t kLongestLine = 4095;

/// The text that makes a line a key's.
constexpr std::string_view kRootWord = "hkey_local_machine";

/// Whether a change of this process has reached the file.
enum class Mark : unsigned char {
    Clean,
    Set,      // changed here, and not in the file
    Carried,  // in the text that a write under way is about to put in place
};

/// The words for the three types that the file holds; empty for any other type.
std::string_view typeWord(DWORD type);

/// A value as it stands in somebody else's text.
struct ValueText {
    DWORD type = REG_NONE;
    std::string_view name;
    std::string_view data;  // in the file's text form
};

/// Takes one value line of the file apart; nothing when it is not a well-formed one.
std::optional<ValueText> parseValueLine(std::string_view line);

}  // namespace traiklofox::registry

class RegValue {
  public:
    RegValue() = default;
    RegValue(DWORD type, CKZString name, CKZString data);

    void SetValues(DWORD newType, CKZString newName, CKZString newData);

    /// Takes the value from one value line of the file. Returns 1, or 0 when it is not a well-formed one, and
    /// then changes nothing.
    int FormatValue(const char* line);

    /// Appends the value's line, with its line feed.
    void appendLine(std::string& text) const;
    /// The length of that line without the line feed. One that would be longer than a line can be is written
    /// without columns.
    size_t lineLength() const;

    bool writable() const { return !traiklofox::registry::typeWord(type).empty(); }

    traiklofox::registry::ValueText text() const { return {type, name, data}; }

    friend bool operator==(const RegValue& left, const traiklofox::registry::ValueText& right) {
        return left.type == right.type && left.name.size() == right.name.size() &&
               left.data.size() == right.data.size() && std::string_view(left.name) == right.name &&
               std::string_view(left.data) == right.data;
    }
    friend bool operator==(const RegValue& left, const RegValue& right) { return left == right.text(); }

    DWORD generation = 0;  // of the read that last set or confirmed it
    DWORD type = REG_NONE;
    CKZString name;
    CKZString data;  // in the file's text form
    traiklofox::registry::Mark dirty = traiklofox::registry::Mark::Clean;
};
