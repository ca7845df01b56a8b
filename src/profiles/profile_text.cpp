#include "profiles/profile_text.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <unordered_set>

namespace traiklofox::profiles {

namespace {

using Kind = ProfileLine::Kind;

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
constexpr size_t kUsualLine = 24;  // bytes, to guess the number of lines by

constexpr std::array<unsigned char, 256> lowerTable() {
    std::array<unsigned char, 256> table{};
    for (unsigned int i = 0; i < table.size(); ++i)
        table[i] = static_cast<unsigned char>(i >= 'A' && i <= 'Z' ? i + ('a' - 'A') : i);
    return table;
}
constexpr auto kLower = lowerTable();

unsigned char lower(char character) {
    return kLower[static_cast<unsigned char>(character)];
}

bool isBlank(char character) {
    return character == ' ' || character == '\t' || character == '\r' || character == '\v' ||
           character == '\f';
}

constexpr std::uint32_t kHashStart = 2166136261;

std::uint32_t hashOn(std::uint32_t hash, std::string_view name) {
    for (const char character : name) hash = (hash ^ lower(character)) * 16777619;
    return hash;
}

/// Fills in what the line's `content`, which has no blanks around it, is.
void classify(std::string_view content, ProfileLine& line) {
    line.name = content;
    if (content.empty()) {
        line.kind = Kind::Blank;
    } else if (content.front() == ';') {
        line.kind = Kind::Comment;
    } else if (content.front() == '[') {
        line.kind = Kind::Section;
        line.name = trimmed(content.substr(1, content.find(']') - 1));
    } else if (const size_t equals = content.find('='); equals != content.npos) {
        line.kind = Kind::Key;
        line.name = trimmed(content.substr(0, equals));
        line.value = trimmed(content.substr(equals + 1));
    } else {
        line.kind = Kind::Other;
    }
}

FirstLine placeOf(size_t begin) {
    return begin == 0 ? FirstLine::Yes : FirstLine::No;
}

/// Where the next line begins that may be a section's, from the beginning of a line on; the text's end without one.
size_t nextSection(std::string_view all, size_t begin) {
    while (begin < all.size()) {
        size_t first = begin == 0 && all.starts_with(kByteOrderMark) ? kByteOrderMark.size() : begin;
        while (first < all.size() && isBlank(all[first])) ++first;
        if (first == all.size() || all[first] == '[') break;
        const size_t lineFeed = all.find('\n', first);
        begin = lineFeed == all.npos ? all.size() : lineFeed + 1;
    }
    return begin;
}

}  // namespace

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
    // To the end, of which an empty text remembers the place.
    const std::string_view whole = text;
    while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
    return text.empty() ? whole.substr(0, 0) : text;
}

std::string_view withoutQuotes(std::string_view text) {
    const bool isQuoted =
        text.size() >= 2 && (text.front() == '"' || text.front() == '\'') && text.front() == text.back();
    return isQuoted ? text.substr(1, text.size() - 2) : text;
}

ProfileLine lineAt(std::string_view all, size_t begin, FirstLine isFirst) {
    const size_t lineFeed = all.find('\n', begin);
    ProfileLine line;
    line.begin = begin;
    line.end = lineFeed == all.npos ? all.size() : lineFeed + 1;
    std::string_view content = all.substr(begin, std::min(lineFeed, all.size()) - begin);
    if (isFirst == FirstLine::Yes && content.starts_with(kByteOrderMark))
        content.remove_prefix(kByteOrderMark.size());
    content = content.substr(0, content.find('\0'));
    classify(trimmed(content), line);
    return line;
}

size_t NameHash::operator()(std::string_view name) const {
    return hashOn(kHashStart, name);
}

bool NameEqual::operator()(std::string_view left, std::string_view right) const {
    return left.size() == right.size() &&
           std::equal(left.begin(), left.end(), right.begin(),
                      [](char one, char other) { return lower(one) == lower(other); });
}

size_t FullNameHash::operator()(const FullName& name) const {
    return hashOn(hashOn(kHashStart, name.section) * 31, name.key);
}

bool FullNameEqual::operator()(const FullName& left, const FullName& right) const {
    return NameEqual{}(left.key, right.key) && NameEqual{}(left.section, right.section);
}

ProfileText::ProfileText(std::string text) : text_(std::move(text)) {}

const std::vector<ProfileLine>& ProfileText::lines() const {
    if (!lines_.empty()) return lines_;
    lines_.reserve(text_.size() / kUsualLine);
    for (size_t begin = 0; begin < text_.size(); begin = lines_.back().end)
        lines_.push_back(lineAt(text_, begin, placeOf(begin)));
    return lines_;
}

ProfileText::Index ProfileText::makeIndex() const {
    Index index;
    index.reserve(lines().size());
    std::unordered_set<std::string_view, NameHash, NameEqual> sections;
    std::optional<std::string_view> current;
    for (const ProfileLine& line : lines()) {
        if (line.kind == Kind::Section) {
            current.reset();
            if (sections.insert(line.name).second) current = line.name;
        } else if (line.kind == Kind::Key && current) {
            index.try_emplace({*current, line.name}, line.value);
        }
    }
    return index;
}

std::optional<std::string_view> ProfileText::value(std::string_view section, std::string_view key) {
    if (!index_) {
        if (!isSearched_) {
            isSearched_ = true;
            return search(section, key);
        }
        index_ = makeIndex();
    }
    const auto found = index_->find({section, key});
    if (found == index_->end()) return std::nullopt;
    return found->second;
}

std::optional<std::string_view> ProfileText::search(std::string_view section, std::string_view key) const {
    bool isIn = false;
    for (size_t begin = nextSection(text_, 0); begin < text_.size();) {
        const ProfileLine line = lineAt(text_, begin, placeOf(begin));
        if (line.kind == Kind::Section) {
            if (isIn) return std::nullopt;
            isIn = NameEqual{}(line.name, section);
        } else if (isIn && line.kind == Kind::Key && NameEqual{}(line.name, key)) {
            return line.value;
        }
        begin = isIn ? line.end : nextSection(text_, line.end);
    }
    return std::nullopt;
}

std::optional<size_t> ProfileText::section(std::string_view name) const {
    for (size_t i = 0; i < lines().size(); ++i)
        if (lines()[i].kind == Kind::Section && NameEqual{}(lines()[i].name, name)) return i;
    return std::nullopt;
}

size_t ProfileText::endOfSection(size_t begin) const {
    size_t end = begin + 1;
    while (end < lines().size() && lines()[end].kind != Kind::Section) ++end;
    return end;
}

}  // namespace traiklofox::profiles
