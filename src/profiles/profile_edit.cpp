#include "profiles/profile_edit.h"

#include <algorithm>
#include <unordered_map>
#include <unordered_set>

namespace traiklofox::profiles {

namespace {

using Kind = ProfileLine::Kind;

bool hasLineEnd(std::string_view text) {
    return text.find_first_of("\r\n") != text.npos;
}

bool isSectionName(std::string_view name) {
    return !hasLineEnd(name) && name.find(']') == name.npos;
}

bool isKeyName(std::string_view name) {
    return !name.empty() && !hasLineEnd(name) && name.find('=') == name.npos && name.front() != '[' &&
           name.front() != ';';
}

bool isSectionLine(std::string_view line) {
    line = trimmed(line);
    return !line.empty() && !hasLineEnd(line) && line.front() != '[';
}

bool isContent(Kind kind) {
    return kind == Kind::Key || kind == Kind::Other;
}

/// A text as a list of lines, in which each change costs what it touches.
class EditedText {
  public:
    explicit EditedText(const ProfileText& profile);
    EditedText(const EditedText&) = delete;
    EditedText& operator=(const EditedText&) = delete;

    void make(const ProfileEdit& edit);
    std::string text() const;

  private:
    static constexpr size_t kNone = static_cast<size_t>(-1);
    struct Line {
        std::string_view raw = {};  // with its line end
        Kind kind = Kind::Blank;
        std::string_view name = {};
        std::string_view value = {};  // a key's, in `raw`
        size_t next = kNone;
        bool isGone = false;
    };
    struct Section {
        std::vector<size_t> headers;  // of all sections of one name; changes are made in the first
        bool isIndexed = false;
        std::unordered_map<std::string_view, std::vector<size_t>, NameHash, NameEqual> keys = {};
        size_t lastContent = kNone;  // or the header
    };
    template <class Use>
    void forEachLine(size_t header, Use use) {
        for (size_t i = lines_[header].next; i != kNone && lines_[i].kind != Kind::Section;
             i = lines_[i].next)
            if (!lines_[i].isGone) use(i);
    }
    std::string_view firstLineEnd();
    void endLine(Line& line);
    std::string_view own(std::string text) { return owned_.emplace_back(std::move(text)); }
    size_t addBehind(size_t place, const std::string& content);
    Section& addSection(const std::string& name);
    void indexKeys(Section& section);
    void setKey(Section& section, const ProfileEdit& edit);
    void deleteKey(Section& section, const std::string& key);
    void replaceContent(Section& section, const std::vector<std::string>& lines);
    void deleteSections(const Section& sections);

    std::vector<Line> lines_;  // the first one is before the text
    size_t last_ = 0;
    size_t first_ = 0;          // a place before which nothing is left
    std::string_view lineEnd_;  // what the new lines of a change end with
    std::unordered_map<std::string_view, Section, NameHash, NameEqual> sections_;
    std::deque<std::string> owned_;  // what new lines refer to
};

EditedText::EditedText(const ProfileText& profile) {
    const auto& lines = profile.lines();
    const std::string_view text = profile.text();
    lines_.reserve(lines.size() + 1);
    lines_.push_back({.isGone = true});
    for (const ProfileLine& line : lines) {
        lines_[last_].next = lines_.size();
        last_ = lines_.size();
        lines_.push_back({text.substr(line.begin, line.end - line.begin), line.kind, line.name, line.value});
        if (line.kind == Kind::Section) sections_[line.name].headers.push_back(last_);
    }
}

std::string_view EditedText::firstLineEnd() {
    while (lines_[first_].isGone && lines_[first_].next != kNone) first_ = lines_[first_].next;
    return !lines_[first_].isGone && lines_[first_].raw.ends_with("\r\n") ? "\r\n" : "\n";
}

/// Gives the text's last line an end, so that another may follow.
void EditedText::endLine(Line& line) {
    if (line.isGone || line.raw.ends_with('\n')) return;
    const std::string_view old = line.raw;
    line.raw = own(std::string(old).append(lineEnd_));
    if (line.kind == Kind::Key)
        line.value = line.raw.substr(static_cast<size_t>(line.value.data() - old.data()), line.value.size());
}

/// The new line's number.
size_t EditedText::addBehind(size_t place, const std::string& content) {
    endLine(lines_[place]);
    const std::string_view raw = own(std::string(content).append(lineEnd_));
    const ProfileLine parsed = lineAt(raw, /*begin=*/0, FirstLine::No);
    const size_t added = lines_.size();
    lines_.push_back({raw, parsed.kind, parsed.name, parsed.value, lines_[place].next});
    lines_[place].next = added;
    if (place == last_) last_ = added;
    return added;
}

EditedText::Section& EditedText::addSection(const std::string& name) {
    const size_t header = addBehind(last_, "[" + name + "]");
    Section& section = sections_[lines_[header].name];
    section.headers.push_back(header);
    return section;
}

void EditedText::indexKeys(Section& section) {
    section.isIndexed = true;
    section.keys.clear();
    section.lastContent = section.headers.front();
    forEachLine(section.headers.front(), [&](size_t i) {
        if (lines_[i].kind == Kind::Key) section.keys[lines_[i].name].push_back(i);
        if (isContent(lines_[i].kind)) section.lastContent = i;
    });
}

void EditedText::setKey(Section& section, const ProfileEdit& edit) {
    if (!section.isIndexed) indexKeys(section);
    if (const auto found = section.keys.find(edit.key); found != section.keys.end()) {
        Line& line = lines_[found->second.front()];
        const auto place = static_cast<size_t>(line.value.data() - line.raw.data());
        line.raw = own(std::string(line.raw).replace(place, line.value.size(), edit.value));
        line.value = lineAt(line.raw, /*begin=*/0, FirstLine::No).value;  // an empty one has another place
        return;
    }
    section.lastContent = addBehind(section.lastContent, edit.key + "=" + edit.value);
    section.keys[lines_[section.lastContent].name].push_back(section.lastContent);
}

void EditedText::deleteKey(Section& section, const std::string& key) {
    if (!section.isIndexed) indexKeys(section);
    const auto found = section.keys.find(key);
    if (found == section.keys.end()) return;
    for (const size_t i : found->second) {
        lines_[i].isGone = true;
        if (i == section.lastContent) section.isIndexed = false;
    }
    section.keys.erase(found);
}

void EditedText::replaceContent(Section& section, const std::vector<std::string>& lines) {
    const size_t header = section.headers.front();
    std::unordered_set<std::string_view> comments;
    forEachLine(header, [&](size_t i) {
        lines_[i].isGone = isContent(lines_[i].kind);
        if (lines_[i].kind == Kind::Comment) comments.insert(lines_[i].name);
    });
    size_t last = header;
    for (const std::string& line : lines)
        if (!comments.contains(trimmed(line))) last = addBehind(last, line);
    section.isIndexed = false;
}

void EditedText::deleteSections(const Section& sections) {
    for (const size_t header : sections.headers) {
        lines_[header].isGone = true;
        forEachLine(header, [&](size_t i) { lines_[i].isGone = true; });
    }
}

void EditedText::make(const ProfileEdit& edit) {
    using enum ProfileEdit::Kind;
    const auto found = sections_.find(edit.section);
    const bool isNew = found == sections_.end();
    if (isNew && edit.kind != SetKey && edit.kind != ReplaceSection) return;
    lineEnd_ = firstLineEnd();
    Section& section = isNew ? addSection(edit.section) : found->second;
    switch (edit.kind) {
        case SetKey: return setKey(section, edit);
        case DeleteKey: return deleteKey(section, edit.key);
        case ReplaceSection: return replaceContent(section, edit.lines);
        case DeleteSection:
            deleteSections(section);
            sections_.erase(found);
            return;
    }
}

std::string EditedText::text() const {
    size_t size = 0;
    for (const Line& line : lines_) size += line.isGone ? 0 : line.raw.size();
    std::string text;
    text.reserve(size);
    for (size_t i = 0; i != kNone; i = lines_[i].next)
        if (!lines_[i].isGone) text += lines_[i].raw;
    return text;
}

}  // namespace

bool ProfileEdit::canBeWritten() const {
    if (!isSectionName(section)) return false;
    switch (kind) {
        case Kind::SetKey: return isKeyName(key) && !hasLineEnd(value);
        case Kind::DeleteKey: return isKeyName(key);
        case Kind::ReplaceSection: return std::ranges::all_of(lines, isSectionLine);
        case Kind::DeleteSection: return true;
    }
    return false;
}

std::string edited(const ProfileText& profile, const ProfileEdits& edits, size_t first) {
    EditedText text(profile);
    for (size_t i = first; i < edits.size(); ++i) text.make(edits[i]);
    return text.text();
}

}  // namespace traiklofox::profiles
