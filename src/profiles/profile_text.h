#pragma once

// profile_text.h: the text of a profile, taken apart, looked up and changed. No file, no lock: callers have the text to
// themselves.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace traiklofox::profiles {

/// `text` without blanks at either end.
std::string_view trimmed(std::string_view text);

/// `text` without the quotes that enclose it.
std::string_view withoutQuotes(std::string_view text);

struct ProfileLine {
    enum class Kind : std::uint8_t { Blank, Comment, Section, Key, Other };
    Kind kind = Kind::Blank;
    std::string_view name;   // of a section or a key; any other line's content
    std::string_view value;  // a key's, with its quotes; empty, it stands behind the "="
    size_t begin = 0;        // in the text
    size_t end = 0;          // behind its line end
};

/// A name, without regard to the case of ASCII letters.
struct NameHash {
    size_t operator()(std::string_view name) const;
};
struct NameEqual {
    bool operator()(std::string_view left, std::string_view right) const;
};

enum class FirstLine { No, Yes };  // which may begin with a byte order mark

/// The line that begins there.
ProfileLine lineAt(std::string_view all, size_t begin, FirstLine isFirst);

/// A key's name and its section's.
struct FullName {
    std::string_view section;
    std::string_view key;
};
struct FullNameHash {
    size_t operator()(const FullName& name) const;
};
struct FullNameEqual {
    bool operator()(const FullName& left, const FullName& right) const;
};

class ProfileText {
  public:
    explicit ProfileText(std::string text);
    ProfileText(const ProfileText&) = delete;
    ProfileText& operator=(const ProfileText&) = delete;

    const std::string& text() const { return text_; }
    const std::vector<ProfileLine>& lines() const;

    /// A key's value, with its quotes; names without blanks around them. The first look-up searches the text, later
    /// ones have an index: a text that is read for one value is not worth one.
    std::optional<std::string_view> value(std::string_view section, std::string_view key);
    /// The place of the line that begins the section, in `lines`.
    std::optional<size_t> section(std::string_view name) const;
    /// The place behind the section's last line.
    size_t endOfSection(size_t begin) const;

  private:
    using Index = std::unordered_map<FullName, std::string_view, FullNameHash, FullNameEqual>;

    Index makeIndex() const;
    std::optional<std::string_view> search(std::string_view section, std::string_view key) const;

    const std::string text_;
    mutable std::vector<ProfileLine> lines_;  // made when first asked for
    bool isSearched_ = false;
    std::optional<Index> index_;
};

}  // namespace traiklofox::profiles
